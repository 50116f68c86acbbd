// How long the feed waits before it tries again to reach a collector that is away.
//
// poll() stands here in the place of the system's: waiting takes no time.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "collector.h"

namespace {

std::vector<int> pauses;  // milliseconds
constexpr size_t kEnough = 10;

}  // namespace

// After enough pauses the process is told to stop.
extern "C" __attribute__((visibility("default"))) int poll(pollfd *polled, nfds_t count,
                                                           int longest) {
  pauses.push_back(longest);
  if (pauses.size() < kEnough) return 0;
  kill(getpid(), SIGTERM);
  return reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"))(polled, count,
                                                                     longest);
}

namespace {

TEST(Pause, DoublesUpToTwoSeconds) {
  Stop stop;
  Collector collector("/tmp/nobody.sock", stop, [] {});
  EXPECT_FALSE(collector.send({Delivery()}));
  EXPECT_EQ(pauses,
            (std::vector<int>{50, 100, 200, 400, 800, 1600, 2000, 2000, 2000, 2000}));
}

}  // namespace
