// The collector reads 1292 bytes at a time and does not put parts together, so each
// record is one write. It says nothing back; but it closes a connection only after it has
// read it to the end, and the kernel tells a connection reset when a collector ends with
// something unread. So a connection that ends well after our own end of it has arrived.
//
// Arrived is not stored: the collector stores between two connections. So an empty one
// follows; when the same collector takes it, what came before is in its database, as far
// as its cache time is 0. A collector that is told to end removes its socket and stores
// all that it holds. One that is killed leaves its socket, and may have stored all or
// nothing: the whole batch comes again.
//
// A collector that is busy is waited for without limit, until the feed is told to stop.

#include "collector.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "say.h"

namespace {

constexpr Stop::Milliseconds kFirstPause(50);
constexpr Stop::Milliseconds kLongestPause(2000);

// A connection to the socket; not open, with errno set, when the collector is away.
Descriptor connectTo(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return Descriptor();
  }
  memcpy(address.sun_path, path.data(), path.size());
  Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.isOpen()) return fd;
  // With a full backlog this says EAGAIN: busy is like away here.
  if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) !=
      0)
    return Descriptor();
  return fd;
}

// The process that listens; 0 when the kernel does not tell.
pid_t listenerOf(int fd) {
  ucred listener = {};
  socklen_t size = sizeof(listener);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &listener, &size) != 0) return 0;
  return listener.pid;
}

}  // namespace

bool Collector::send(const std::vector<Delivery> &deliveries) {
  for (Stop::Milliseconds pause = kFirstPause;;
       pause = std::min(pause * 2, kLongestPause)) {
    if (attempt(deliveries)) {
      tell(false);
      return true;
    }
    if (stop_.requested()) return false;
    tell(true);
    stop_.wait(-1, 0, pause);
    // Told to stop, it tries once more: the collector may be back by now.
  }
}

void Collector::tell(bool away) {
  if (away == away_) return;
  const int error = errno;
  away_ = away;
  if (!away) return say(LOG_NOTICE, "the collector at " + path_ + " is back");
  say(LOG_WARNING, because("the collector at " + path_ + " is away; waiting", error));
  onAway_();
}

bool Collector::attempt(const std::vector<Delivery> &deliveries) {
  const Descriptor fd = connectTo(path_);
  if (!fd.isOpen()) return false;
  for (const Delivery &delivery : deliveries)
    if (!write(fd.get(), makeRecord(delivery))) return false;
  return awaitEnd(fd.get()) && awaitStored(listenerOf(fd.get()));
}

// Between closing its socket and removing it, a collector that ends looks like one that
// was killed; so that is asked twice.
bool Collector::awaitStored(pid_t listener) {
  for (int refusals = 0; refusals < 2; stop_.wait(-1, 0, kFirstPause)) {
    const Descriptor fd = connectTo(path_);
    if (!fd.isOpen()) {
      if (errno == ENOENT) return true;
      if (errno != EAGAIN) ++refusals;
    } else if (listenerOf(fd.get()) != listener) {
      errno = ECONNRESET;  // what became of the other one cannot be known
      return false;
    } else if (awaitEnd(fd.get())) {
      return true;
    }
    if (isOver()) return false;
  }
  return false;
}

bool Collector::write(int fd, const LogSocket &record) {
  for (;;) {
    const ssize_t written = ::send(fd, &record, sizeof(record), MSG_NOSIGNAL);
    if (written == static_cast<ssize_t>(sizeof(record))) return true;
    if (written >= 0 || (errno != EAGAIN && errno != EINTR)) return false;
    if (!ready(fd, POLLOUT)) return false;
  }
}

bool Collector::awaitEnd(int fd) {
  if (shutdown(fd, SHUT_WR) != 0) return false;
  for (;;) {
    if (!ready(fd, POLLIN)) return false;
    char byte;
    const ssize_t length = recv(fd, &byte, 1, 0);
    if (length == 0) return true;
    if (length < 0 && errno != EAGAIN && errno != EINTR) return false;
  }
}

// Waits for the collector; once the feed is told to stop, for a few seconds only.
bool Collector::ready(int fd, short events) {
  for (;;) {
    const Stop::Milliseconds longest = stop_.requested() ? stop_.grace() : Stop::kForever;
    if (stop_.wait(fd, events, longest)) return true;
    if (isOver()) return false;
  }
}

bool Collector::isOver() const {
  return stop_.requested() && stop_.grace() == Stop::Milliseconds(0);
}
