// Reading and replacing whole files, for settings files and files with sections.
//
// A file is replaced by renaming a new one over it, so the lock cannot be on the
// file itself: it is on "<path>.lock", which is never removed (a process that
// waits for it would otherwise hold a lock that nobody else sees). The new file
// has the fixed name "<path>.new"; one that a killed process left is thrown away
// by the next update.

#include "text_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "error.h"

namespace kestcore {
namespace {

constexpr size_t kReadStep = 4096;
constexpr int kMaxLinks = 40;  // as many as the kernel follows

int readDescriptor(int fd, const struct stat &st, std::string *content) {
  // One byte more than the size shows the end of the file in the same pass.
  content->resize(st.st_size > 0 ? static_cast<size_t>(st.st_size) + 1 : kReadStep);
  size_t length = 0;
  for (;;) {
    const ssize_t n = read(fd, &(*content)[length], content->size() - length);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail(KLIBC_ERR_READ_FAILED);
    if (n == 0) break;
    length += static_cast<size_t>(n);
    if (length == content->size()) content->resize(2 * length);
  }
  content->resize(length);
  return 0;
}

// Opens and reads; the file's owner and mode are left in *st.
int readFile(const std::string &path, std::string *content, struct stat *st) {
  // Not to wait for a writer, should the path name a pipe; a pipe is refused below.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.ok()) return fail(KLIBC_ERR_OPEN_FAILED);
  if (fstat(file.get(), st) != 0 || !S_ISREG(st->st_mode))
    return fail(KLIBC_ERR_READ_FAILED);
  return readDescriptor(file.get(), *st, content);
}

std::string readLink(const std::string &path) {
  char target[PATH_MAX];
  const ssize_t n = readlink(path.c_str(), target, sizeof target);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

std::string realPath(const std::string &path) {
  const std::unique_ptr<char, void (*)(void *)> real(realpath(path.c_str(), nullptr),
                                                     free);
  return real ? std::string(real.get()) : std::string();
}

// The path without symbolic links, also when the file is still missing; empty
// when its folder is missing. A link whose target is missing counts as followed.
std::string resolve(std::string path) {
  for (int links = 0; links < kMaxLinks; ++links) {
    std::string real = realPath(path);
    if (!real.empty()) return real;
    const std::string target = readLink(path);
    if (target.empty()) {
      real = realPath(folderOf(path));
      return real.empty() ? real : real + "/" + path.substr(path.rfind('/') + 1);
    }
    path = target.front() == '/' ? target : folderOf(path).append("/").append(target);
  }
  return {};
}

bool waitForLock(int fd) noexcept {
  while (flock(fd, LOCK_EX) != 0)
    if (errno != EINTR) return false;
  return true;
}

// Gives the new file the owner and mode of the old one. Only root may give a file
// away; anyone else must not replace another's file by one of his own.
bool setOwnerAndMode(int fd, const std::optional<struct stat> &old) noexcept {
  struct stat now;
  if (fstat(fd, &now) != 0) return false;
  if (old && (old->st_uid != now.st_uid || old->st_gid != now.st_gid) &&
      fchown(fd, old->st_uid, old->st_gid) != 0)
    return false;
  return fchmod(fd, old ? old->st_mode & 07777 : 0644) == 0;
}

// Writes the new file, unreadable for others until it is like the old one.
bool writeNew(const std::string &path, std::string_view content,
              const std::optional<struct stat> &old) noexcept {
  Descriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  return file.ok() && setOwnerAndMode(file.get(), old) && writeAll(file.get(), content) &&
         fsync(file.get()) == 0 && file.close();
}

}  // namespace

int readFile(const std::string &path, std::string *content) {
  struct stat st;
  return readFile(path, content, &st);
}

bool writeAll(int fd, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool nextLine(std::string_view *rest, std::string_view *line) noexcept {
  if (rest->empty()) return false;
  const size_t newline = rest->find('\n');
  *line = rest->substr(0, newline == std::string_view::npos ? newline : newline + 1);
  rest->remove_prefix(line->size());
  return true;
}

int copyOut(std::string_view text, char *buffer, int size) noexcept {
  buffer[0] = '\0';
  if (text.size() >= static_cast<size_t>(size)) return fail(KLIBC_ERR_TOO_LONG);
  buffer[text.copy(buffer, text.size())] = '\0';
  return static_cast<int>(text.size());
}

std::string folderOf(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

int FileUpdate::begin(const char *path) {
  path_ = resolve(path);
  if (path_.empty()) return fail(KLIBC_ERR_OPEN_FAILED);
  lock_ = Descriptor(
      open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock_.ok() || !waitForLock(lock_.get())) return fail(KLIBC_ERR_OPEN_FAILED);
  if (access(path_.c_str(), F_OK) != 0 && errno == ENOENT) return 0;
  // An unreadable file must not be taken for a missing one and be replaced.
  struct stat st;
  if (readFile(path_, &content_, &st) < 0) return -1;
  old_ = st;
  return 0;
}

int FileUpdate::replace(std::string_view content) {
  // Opened first: after the rename it would be too late to find that it cannot be.
  const Descriptor folder(
      open(folderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.ok()) return fail(KLIBC_ERR_OPEN_FAILED);
  const std::string fresh = path_ + ".new";
  if (unlink(fresh.c_str()) != 0 && errno != ENOENT) return fail(KLIBC_ERR_OPEN_FAILED);
  if (!writeNew(fresh, content, old_) || rename(fresh.c_str(), path_.c_str()) != 0) {
    unlink(fresh.c_str());  // the failure to report is the one before
    return fail(KLIBC_ERR_WRITE_FAILED);
  }
  return fsync(folder.get()) == 0 ? 0 : fail(KLIBC_ERR_WRITE_FAILED);
}

}  // namespace kestcore
