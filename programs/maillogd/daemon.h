// The logging daemon as a function.

#ifndef POSTWELL_PROGRAMS_DAEMON_H_
#define POSTWELL_PROGRAMS_DAEMON_H_

#include <sys/types.h>

#include <optional>
#include <string>

struct DaemonOptions {
  bool background = false;
  std::string pidFile = "/run/postwell/maillogd.pid";  // absolute
  int cacheTime = 0;                                   // seconds; senders gather already
  int rotateThreshold = 100'000;                       // rows
  std::optional<gid_t> group;                          // may connect besides root
};

// Collects until a signal ends it. Returns the exit status: 0 when all that was received
// is stored, or, in the background, as soon as senders can connect; 1 on a failure, which
// is told on standard error.
int runDaemon(const DaemonOptions &options);

#endif  // POSTWELL_PROGRAMS_DAEMON_H_
