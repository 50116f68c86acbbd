// The names in a folder, one after the other.

#ifndef POSTWELL_INTERNAL_FOLDER_H_
#define POSTWELL_INTERNAL_FOLDER_H_

#include <dirent.h>

#include <cerrno>

namespace internal {

class Folder {
 public:
  explicit Folder(const char *path) noexcept : _dir(opendir(path)) {}
  ~Folder() {
    if (_dir != nullptr) closedir(_dir);
  }
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  bool isOpen() const noexcept { return _dir != nullptr; }

  // The next entry's name, "." and ".." among them; null at the end and on a failure,
  // which errno tells from an end by not being 0.
  const char *next() noexcept {
    errno = 0;
    const dirent *entry = readdir(_dir);
    return entry == nullptr ? nullptr : entry->d_name;
  }

 private:
  DIR *_dir;
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_FOLDER_H_
