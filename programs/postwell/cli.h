// The command line tool as a function.

#ifndef POSTWELL_PROGRAMS_CLI_H_
#define POSTWELL_PROGRAMS_CLI_H_

// Runs one command line: results to std::cout, complaints to std::cerr. Returns
// the exit status: 0 done, 1 failed, 2 wrong usage or a value that was refused
// (nothing was written then). Throws nothing.
int runCli(int argc, const char *const *argv) noexcept;

#endif  // POSTWELL_PROGRAMS_CLI_H_
