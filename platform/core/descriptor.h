// A file descriptor that closes itself.

#ifndef KESTCORE_DESCRIPTOR_H_
#define KESTCORE_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace kestcore {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  // What was only read loses nothing when close() fails; writers use close().
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  bool ok() const noexcept { return fd_ >= 0; }
  int get() const noexcept { return fd_; }
  // Closes now; false when the kernel reports a write that failed late.
  bool close() noexcept { return ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_;
};

}  // namespace kestcore

#endif  // KESTCORE_DESCRIPTOR_H_
