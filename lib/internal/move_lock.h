// Keeps the live mail log in its place while somebody opens it.

#ifndef POSTWELL_INTERNAL_MOVE_LOCK_H_
#define POSTWELL_INTERNAL_MOVE_LOCK_H_

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "internal/paths.h"

namespace internal {

// A lock on the folder of the logs, for as long as this lives. Nobody waits for it.
class MoveLock {
 public:
  enum Kind { kOpening = LOCK_SH, kMoving = LOCK_EX };
  explicit MoveLock(Kind kind) noexcept
      : _folder(open(paths::kMailLogFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
        _isRefused(_folder >= 0 && flock(_folder, kind | LOCK_NB) != 0 &&
                   errno == EWOULDBLOCK) {}
  ~MoveLock() {
    if (_folder >= 0) close(_folder);
  }
  MoveLock(const MoveLock &) = delete;
  MoveLock &operator=(const MoveLock &) = delete;

  // Somebody moves the log, or opens it. Where the folder cannot be locked nobody is
  // refused.
  bool isRefused() const noexcept { return _isRefused; }

 private:
  const int _folder;
  const bool _isRefused;
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_MOVE_LOCK_H_
