#include "support/syslog_reader.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

// Held while a reader's thread does anything but wait, and while the process forks: a
// child of that moment would inherit an allocator locked for good, since not every
// allocator (the address sanitizer's) frees its locks there.
std::mutex reading;

void readOnlyBetweenForks() {
  static const int registered = pthread_atfork(
      [] { reading.lock(); }, [] { reading.unlock(); }, [] { reading.unlock(); });
  if (registered != 0) abort();
}

// A datagram of syslog(3): "<PRI>Mmm dd hh:mm:ss tag: text".
LogLine parse(const std::string &datagram) {
  LogLine line{-1, datagram};
  int used = 0;
  const size_t stamp = 16;  // "Mmm dd hh:mm:ss "
  if (sscanf(datagram.c_str(), "<%d>%n", &line.priority, &used) != 1) return line;
  line.priority &= LOG_PRIMASK;
  const size_t start = static_cast<size_t>(used) + stamp;
  if (datagram.size() < start) return line;
  const size_t colon = datagram.find(": ", start);
  line.text = datagram.substr(colon == std::string::npos ? start : colon + 2);
  return line;
}

}  // namespace

SyslogReader::SyslogReader()
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
  closelog();
  unlink("/dev/log");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/dev/log");
  if (bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    perror("/dev/log (run the test under hermetic-run)");
    abort();
  }
  readOnlyBetweenForks();
  std::condition_variable changed;
  bool started = false;
  std::unique_lock<std::mutex> starting(reading);
  thread_ = std::thread([this, &changed, &started] {
    {
      const std::lock_guard<std::mutex> lock(reading);
      started = true;
      changed.notify_one();
    }
    pollfd wait[2] = {{socket_, POLLIN, 0}, {stop_, POLLIN, 0}};
    while (poll(wait, 2, -1) >= 0 || errno == EINTR) {
      if (wait[1].revents != 0) return;
      const std::lock_guard<std::mutex> lock(reading);
      drain();
    }
  });
  changed.wait(starting, [&started] { return started; });
}

SyslogReader::~SyslogReader() {
  eventfd_write(stop_, 1);
  thread_.join();
  closelog();
  close(socket_);
  close(stop_);
  unlink("/dev/log");
}

std::vector<LogLine> SyslogReader::take() {
  const std::lock_guard<std::mutex> lock(reading);
  drain();
  return std::exchange(lines_, {});
}

void SyslogReader::drain() {
  static char buffer[65536];
  ssize_t n;
  while ((n = recv(socket_, buffer, sizeof buffer, 0)) >= 0)
    lines_.push_back(parse(std::string(buffer, static_cast<size_t>(n))));
}
