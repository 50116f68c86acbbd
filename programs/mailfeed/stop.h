// SIGTERM, SIGINT and SIGHUP, noticed wherever the feed waits.

#ifndef POSTWELL_MAILFEED_STOP_H_
#define POSTWELL_MAILFEED_STOP_H_

#include <poll.h>

#include <chrono>

#include "descriptor.h"

class Stop {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kForever{-1};

  // From now on the signals do not end the process.
  Stop();

  // Waits until the descriptor has one of the events; true then. False when the time is
  // over, or when a signal comes: then, and ever after, requested(). A descriptor of -1
  // never has any.
  bool wait(int fd, short events, Milliseconds longest);
  bool wait(int fd, short events = POLLIN) { return wait(fd, events, kForever); }

  bool requested() const { return requested_; }

  // What is left of the few seconds in which to finish after the request.
  Milliseconds grace() const;

 private:
  Descriptor signals_;
  bool requested_ = false;
  std::chrono::steady_clock::time_point end_;
};

#endif  // POSTWELL_MAILFEED_STOP_H_
