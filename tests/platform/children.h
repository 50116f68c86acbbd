// Child processes that run a piece of the test.

#ifndef POSTWELL_TESTS_PLATFORM_CHILDREN_H_
#define POSTWELL_TESTS_PLATFORM_CHILDREN_H_

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <vector>

// Forks; the child runs `work` and exits with what it returns. It dies with its
// parent, also when that ends in the middle of a test.
template <typename Work>
pid_t startChild(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(work());
  }
  EXPECT_GT(child, 0);
  return child;
}

// Waits for the child; its status as waitpid() gives it.
inline int endOf(pid_t child) {
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// Runs `work(number)` in `count` processes that begin together; the number of
// those that did not return 0.
template <typename Work>
int runTogether(int count, Work work) {
  int gate[2];
  EXPECT_EQ(pipe(gate), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i)
    children.push_back(startChild([&, i] {
      char byte;
      close(gate[1]);
      if (read(gate[0], &byte, 1) != 0) return 99;  // opens when the writer closes
      return work(i);
    }));
  close(gate[0]);
  close(gate[1]);
  int failed = 0;
  for (const pid_t child : children) failed += endOf(child) != 0;
  return failed;
}

#endif  // POSTWELL_TESTS_PLATFORM_CHILDREN_H_
