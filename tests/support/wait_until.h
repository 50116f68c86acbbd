// Waiting for what another process or thread does.

#ifndef POSTWELL_TESTS_WAIT_UNTIL_H_
#define POSTWELL_TESTS_WAIT_UNTIL_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

// Until it holds; fails the test when it does not within a minute.
template <class Condition>
void waitUntil(const char *what, Condition condition) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    ASSERT_LT(Clock::now(), end) << "waited in vain: " << what;
    usleep(2000);
  }
}

#endif  // POSTWELL_TESTS_WAIT_UNTIL_H_
