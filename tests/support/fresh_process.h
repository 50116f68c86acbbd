// What a class does of which a process has one instance, from its first use on.

#ifndef POSTWELL_TESTS_FRESH_PROCESS_H_
#define POSTWELL_TESTS_FRESH_PROCESS_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

// Runs the body in a process of its own: what it makes is gone afterwards. Its
// expectations are the running test's.
inline void inFreshProcess(const std::function<void()> &body) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    body();
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the process of its own failed";
}

#endif  // POSTWELL_TESTS_FRESH_PROCESS_H_
