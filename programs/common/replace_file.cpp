// A new file beside the old one, synced, and renamed to its name.

#include "common/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace {

// A new file beside `path` that is removed unless it took the place of `path`.
class NewFile {
 public:
  explicit NewFile(const std::string &path)
      : path_(path), name_(path + ".XXXXXX"), fd_(mkostemp(name_.data(), O_CLOEXEC)) {}
  ~NewFile() {
    if (fd_ < 0) return;
    close(fd_);
    if (!renamed_) unlink(name_.c_str());
  }
  NewFile(const NewFile &) = delete;
  NewFile &operator=(const NewFile &) = delete;

  // False with errno set when a step fails.
  bool write(const std::string &text) const {
    if (fd_ < 0 || fchmod(fd_, 0644) != 0) return false;
    for (size_t done = 0; done < text.size();) {
      const ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
      if (n < 0 && errno != EINTR) return false;
      if (n > 0) done += static_cast<size_t>(n);
    }
    return fsync(fd_) == 0;
  }

  bool takePlace() {
    renamed_ = rename(name_.c_str(), path_.c_str()) == 0;
    return renamed_;
  }

 private:
  const std::string path_;
  std::string name_;  // mkostemp() completes it
  const int fd_;
  bool renamed_ = false;
};

std::string because(const std::string &what, int error) {
  return what + ": " + std::generic_category().message(error);
}

}  // namespace

std::string replaceFile(const std::string &path, const std::string &text) {
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) return because("cannot make " + folder, error.value());

  NewFile file(path);
  if (!file.write(text)) return because("cannot write beside " + path, errno);
  if (!file.takePlace()) return because("cannot replace " + path, errno);
  return "";
}
