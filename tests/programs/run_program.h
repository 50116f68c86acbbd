// Runs a program as a process and tells all that a user would see of it.

#ifndef POSTWELL_TESTS_RUN_PROGRAM_H_
#define POSTWELL_TESTS_RUN_PROGRAM_H_

#include <string>
#include <vector>

struct Outcome {
  int status;  // of the exit; 128 + signal when one ended it; -1 when it never ran
  std::string out;
  std::string err;
};

// Runs a program of this machine; standard input is `input`. Standard output goes
// to the file `outPath` when that is named, else into the outcome.
Outcome runNative(const std::string &program, const std::vector<std::string> &arguments,
                  const std::string &input = "", const std::string &outPath = "");

// The same for a program of this build, under the emulator when there is one.
Outcome runBuilt(const std::string &emulator, const std::string &program,
                 const std::vector<std::string> &arguments, const std::string &input = "",
                 const std::string &outPath = "");

// The same with a terminal as standard input and output, into which `input` is typed,
// and behind it the end of the input. It does not echo, and lines end in "\n".
Outcome runOnTerminal(const std::string &emulator, const std::string &program,
                      const std::vector<std::string> &arguments,
                      const std::string &input = "");

// The program under test, as the build defines it for each test.
#define RUN_TEST_PROGRAM(...) runBuilt(TEST_EMULATOR, TEST_PROGRAM, __VA_ARGS__)
#define RUN_TEST_PROGRAM_ON_TERMINAL(...) \
  runOnTerminal(TEST_EMULATOR, TEST_PROGRAM, __VA_ARGS__)

#endif  // POSTWELL_TESTS_RUN_PROGRAM_H_
