// The command line tool in this process. What it would do beyond the private root is only
// seemingly done: no program is run, no name is asked for in the DNS, and the process
// stays who it is.

#ifndef POSTWELL_TESTS_COMMAND_LINE_H_
#define POSTWELL_TESTS_COMMAND_LINE_H_

#include <string>
#include <vector>

namespace CLI {
class App;
}

struct Outcome {
  int status;
  std::string out;  // on standard output
  std::string err;  // on standard error
};

// A package as it is after its installation, with an empty folder as the current one.
void beginPackage();

// Whether programs that are run from now on succeed.
void letPrograms(bool succeed);

// Runs one command line, the program's name left out, with this standard input, and
// checks what holds for all of them.
Outcome runCommand(const std::vector<std::string> &words, const std::string &input = "");

// The same with one noun, the others left out, which takes a tenth of the time.
Outcome runNoun(void (*addNoun)(CLI::App &), const std::vector<std::string> &words);

#endif  // POSTWELL_TESTS_COMMAND_LINE_H_
