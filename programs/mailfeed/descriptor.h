// An open file descriptor that closes itself.

#ifndef POSTWELL_MAILFEED_DESCRIPTOR_H_
#define POSTWELL_MAILFEED_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);  // nothing was written that close() could fail to store
  }
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_;
};

#endif  // POSTWELL_MAILFEED_DESCRIPTOR_H_
