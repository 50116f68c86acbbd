// A file is known by its inode and by the last bytes that were read of it. The bytes
// decide: they tell a file that was emptied and filled anew, or a new one that got the
// inode of an old one, and they find the copy that was made before the emptying.
//
// Which file follows a rotated one is told by the times of last change, since names are
// shifted (.1, .2) or dated. The log itself comes last, and only when it has something to
// read: until then its writer may still be writing to the old file. The old file is read
// to its end once more after that. A file that was read before does not follow, though
// somebody has copied or touched it since.

#include "log_follower.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "fingerprint.h"
#include "log_reader.h"
#include "say.h"

namespace {

constexpr size_t kChunk = 65536;
constexpr size_t kKept = 1024;     // bytes before the next line
constexpr size_t kFinished = 100;  // files; who keeps more rotated ones touches none

// Reads up to `size` bytes at `offset`; "" at the end of the file or on failure.
std::string readAt(int fd, uint64_t offset, size_t size) {
  std::string bytes(size, '\0');
  ssize_t length = -1;
  do {
    length = pread(fd, bytes.data(), size, static_cast<off_t>(offset));
  } while (length < 0 && errno == EINTR);
  bytes.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return bytes;
}

std::string readBefore(int fd, uint64_t offset) {
  const auto length = static_cast<size_t>(std::min<uint64_t>(offset, kKept));
  return readAt(fd, offset - length, length);
}

Descriptor openToRead(const std::string &path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

// Whether rotation makes the log of this name one of that name: "maillog" and
// "maillog.1", "maillog-20261121", "maillog.20261121-021500".
bool isRotatedName(const std::string &log, const std::string &name) {
  if (name.size() < log.size() + 2 || name.compare(0, log.size(), log) != 0) return false;
  const char separator = name[log.size()];
  return (separator == '.' || separator == '-') &&
         name.find_first_not_of("0123456789-.", log.size()) == std::string::npos;
}

}  // namespace

std::string realPath(const std::string &path) {
  std::error_code error;
  const auto real = std::filesystem::weakly_canonical(path, error);
  return error ? path : real.string();
}

bool LogFollower::File::isNewerThan(const File &other) const {
  const timespec &a = status.st_mtim, &b = other.status.st_mtim;
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

LogFollower::LogFollower(const std::string &path, const std::optional<Position> &position)
    : path_(realPath(path)) {
  if (position) {
    finished_ = position->finished;
    resume(*position);
    return;
  }
  for (const File &file : rotated()) {
    const auto size = static_cast<uint64_t>(file.status.st_size);
    if (const Descriptor fd = openToRead(file.path); fd.isOpen())
      finish({size, fingerprintOf(readBefore(fd.get(), size))});
  }
}

bool LogFollower::next(std::string_view *line) {
  for (;;) {
    if (takeLine(line)) return true;
    if (fill()) continue;
    const std::optional<File> following = successor();
    if (!following) return false;
    if (fill()) continue;  // written before the other file was
    if (takeRest(line)) return true;
    const Mark end = mark();
    if (!open(*following)) return false;
    finish(end);
  }
}

bool LogFollower::takeLine(std::string_view *line) {
  const size_t end = buffer_.find('\n', start_);
  if (end == std::string::npos)
    return buffer_.size() - start_ >= kLongestLine && takeRest(line);
  *line = std::string_view(buffer_).substr(start_, end - start_);
  start_ = end + 1;
  return true;
}

bool LogFollower::takeRest(std::string_view *line) {
  *line = std::string_view(buffer_).substr(start_);
  start_ = buffer_.size();
  return !line->empty();
}

// Reads on; false at the end of the file. Whether the file is still the same is looked at
// after reading, so that bytes of another are never taken for its own.
bool LogFollower::fill() {
  if (!fd_.isOpen()) return false;
  const size_t done = start_ - std::min(start_, kKept);
  buffer_.erase(0, done);
  base_ += done;
  start_ -= done;
  const std::string bytes = readAt(fd_.get(), base_ + buffer_.size(), kChunk);
  if (!isSame()) {
    say(LOG_NOTICE, file_.path + " was emptied; looking for what was in it");
    resume(position());
    return true;
  }
  // The times of change, for written() and successor(); the old ones do as well.
  (void)fstat(fd_.get(), &file_.status);
  buffer_ += bytes;
  return !bytes.empty();
}

bool LogFollower::isSame() const {
  const size_t length = std::min(buffer_.size(), kKept);
  const size_t from = buffer_.size() - length;
  return readAt(fd_.get(), base_ + from, length) == buffer_.substr(from);
}

// The bytes before the next line, as far as they are kept.
std::string_view LogFollower::justRead() const {
  const size_t length = std::min(start_, kKept);
  return std::string_view(buffer_).substr(start_ - length, length);
}

Mark LogFollower::mark() const { return {base_ + start_, fingerprintOf(justRead())}; }

Position LogFollower::position() const {
  return {file_.status.st_dev, file_.status.st_ino, mark(), file_.status.st_mtime,
          finished_};
}

std::string_view LogFollower::lastLine() const {
  std::string_view line = justRead();
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  return line.substr(line.rfind('\n') + 1);
}

uint64_t LogFollower::unread() const {
  struct stat status;
  if (!fd_.isOpen() || fstat(fd_.get(), &status) != 0) return 0;
  const auto size = static_cast<uint64_t>(status.st_size);
  return size - std::min(size, base_ + start_);
}

// ---- Which file

// Finds the file of the position; when it is gone, the oldest that was written to since.
void LogFollower::resume(const Position &position) {
  std::vector<File> files = rotated();
  const std::optional<File> log = look(path_);
  if (log) files.push_back(*log);
  std::stable_partition(files.begin(), files.end(), [&](const File &file) {
    return file.is(position.device, position.inode);
  });
  for (const File &file : files)
    if (openAt(position, file)) return;

  if (position.mark.offset > 0)
    say(LOG_WARNING,
        "the file that was " + path_ + " is gone; lines of it may be missing");
  File lost;
  lost.status.st_mtime = static_cast<time_t>(position.written);
  const std::optional<File> next = oldestSince(lost);
  fd_ = Descriptor();
  if (next)
    open(*next);
  else if (log)
    open(*log);
}

bool LogFollower::openAt(const Position &position, const File &file) {
  const bool isFile = file.is(position.device, position.inode);
  if (position.mark.offset == 0) return isFile && open(file);
  if (static_cast<uint64_t>(file.status.st_size) < position.mark.offset) return false;
  Descriptor fd = openToRead(file.path);
  if (!fd.isOpen()) return false;
  std::string before = readBefore(fd.get(), position.mark.offset);
  if (fingerprintOf(before) != position.mark.fingerprint) return false;
  fd_ = std::move(fd);
  file_ = file;
  base_ = position.mark.offset - before.size();
  start_ = before.size();
  buffer_ = std::move(before);
  return true;
}

bool LogFollower::open(const File &file) {
  Descriptor fd = openToRead(file.path);
  if (!fd.isOpen() || fstat(fd.get(), &file_.status) != 0) {
    say(LOG_ERR, because("cannot read " + file.path, errno));
    return false;
  }
  fd_ = std::move(fd);
  file_.path = file.path;
  base_ = start_ = 0;
  buffer_.clear();
  return true;
}

std::optional<LogFollower::File> LogFollower::successor() const {
  std::optional<File> log = look(path_);
  if (!fd_.isOpen()) return log;
  if (log && log->is(file_)) return std::nullopt;
  if (std::optional<File> next = oldestSince(file_)) return next;
  return log && log->status.st_size > 0 ? log : std::nullopt;
}

std::optional<LogFollower::File> LogFollower::oldestSince(const File &file) const {
  std::optional<File> oldest;
  for (const File &other : rotated())
    if (!other.is(file) && other.isNewerThan(file) &&
        (!oldest || oldest->isNewerThan(other)) && !isFinished(other))
      oldest = other;
  return oldest;
}

// What cannot be read is asked about again, and told, when it is opened.
bool LogFollower::isFinished(const File &file) const {
  const Descriptor fd = openToRead(file.path);
  return fd.isOpen() &&
         std::any_of(finished_.begin(), finished_.end(), [&](const Mark &end) {
           return end.offset == static_cast<uint64_t>(file.status.st_size) &&
                  fingerprintOf(readBefore(fd.get(), end.offset)) == end.fingerprint;
         });
}

void LogFollower::finish(const Mark &end) {
  if (end.offset == 0) return;  // nothing to know it by
  if (finished_.size() == kFinished) finished_.erase(finished_.begin());
  finished_.push_back(end);
}

std::optional<LogFollower::File> LogFollower::look(const std::string &path) {
  File file{path};
  if (stat(path.c_str(), &file.status) != 0 || !S_ISREG(file.status.st_mode))
    return std::nullopt;
  return file;
}

std::vector<LogFollower::File> LogFollower::rotated() const {
  std::vector<File> files;
  const std::filesystem::path log = path_;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(log.parent_path(), error), end;
       !error && entry != end; entry.increment(error)) {
    if (!isRotatedName(log.filename(), entry->path().filename())) continue;
    if (const std::optional<File> file = look(entry->path())) files.push_back(*file);
  }
  return files;
}
