// A process that works until it is killed, at a moment that nobody chose.

#ifndef POSTWELL_TESTS_KILLED_H_
#define POSTWELL_TESTS_KILLED_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>

#include "platform/children.h"

// How often each test kills: POSTWELL_KILLS in the environment says it.
inline int kills() {
  const char *text = getenv("POSTWELL_KILLS");
  return text == nullptr ? 20 : std::max(1, atoi(text));
}

// Tells that one piece of work is done.
using Acknowledge = std::function<void()>;

// Runs the work in a process of its own, and kills that and what it has started once it
// has acknowledged so many pieces and the nanoseconds have passed. Gives how many pieces
// it had acknowledged.
inline int acknowledgedWhenKilled(const std::function<int(const Acknowledge &)> &work,
                                  int after, long nanoseconds) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = startChild([&] {
    setpgid(0, 0);
    close(ends[0]);
    return work([&] {
      if (write(ends[1], "", 1) != 1) _exit(3);
    });
  });
  setpgid(child, child);  // whoever is first
  close(ends[1]);
  int acknowledged = 0;
  const auto next = [&] {
    char byte;
    const bool read = ::read(ends[0], &byte, 1) == 1;
    acknowledged += read;
    return read;
  };
  while (acknowledged < after && next()) {
  }
  const timespec moment = {0, nanoseconds};
  nanosleep(&moment, nullptr);
  kill(-child, SIGKILL);
  EXPECT_TRUE(WIFSIGNALED(endOf(child))) << "it ended before";
  while (next()) {
  }
  close(ends[0]);
  return acknowledged;
}

#endif  // POSTWELL_TESTS_KILLED_H_
