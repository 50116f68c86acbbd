// The signals are blocked and read from a descriptor, so one that comes between two waits
// is not missed.

#include "stop.h"

#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

constexpr std::chrono::seconds kGrace(5);

Descriptor openSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot block signals");
  const int fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0)
    throw std::system_error(errno, std::generic_category(), "cannot receive signals");
  return Descriptor(fd);
}

}  // namespace

Stop::Stop() : signals_(openSignals()) {}

bool Stop::wait(int fd, short events, Milliseconds longest) {
  pollfd polled[] = {{fd, events, 0}, {signals_.get(), POLLIN, 0}};
  const int ready = poll(polled, 2, static_cast<int>(longest.count()));
  if (ready < 0 && errno != EINTR)
    throw std::system_error(errno, std::generic_category(), "cannot wait");
  if (ready <= 0) return false;
  if (polled[1].revents == 0) return true;
  signalfd_siginfo signal;
  const bool known = read(signals_.get(), &signal, sizeof(signal)) == sizeof(signal);
  if (known && !requested_) {
    requested_ = true;
    end_ = std::chrono::steady_clock::now() + kGrace;
  }
  return polled[0].revents != 0;
}

Stop::Milliseconds Stop::grace() const {
  const auto left = end_ - std::chrono::steady_clock::now();
  return std::max(Milliseconds(0), std::chrono::duration_cast<Milliseconds>(left));
}
