// The command line of mailfeed.

#ifndef POSTWELL_MAILFEED_CLI_H_
#define POSTWELL_MAILFEED_CLI_H_

// Runs the command; what to do about a failure is on standard error and, for a running
// feed, in the system log. The result is the exit status: 0 done or told to stop, 1
// failed, 2 wrong usage.
int runCli(int argc, const char *const *argv) noexcept;

#endif  // POSTWELL_MAILFEED_CLI_H_
