// Anything at all as command lines of the tool, run one after the other in one package:
// whatever they say, the tool ends with one of its three statuses, prints nothing that a
// terminal would obey, and changes no setting when it refuses.
//
// The input begins with the standard input of all; the command lines, a word a line,
// follow after lines "=".

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "command_line.h"
#include "fuzz.h"

namespace {

// The words of a command line. Without a slash no name leads out of the folder.
std::vector<std::string> wordsOf(const std::string &part) {
  std::vector<std::string> words;
  for (const std::string &line : linesOf(part)) {
    words.push_back(wordOf(line));
    std::string &word = words.back();
    word.erase(std::remove(word.begin(), word.end(), '/'), word.end());
  }
  return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  constexpr size_t kMost = 1 + 4;  // each line takes a while
  const std::vector<std::string> parts = partsOf(data, size);
  beginPackage();
  letPrograms(std::hash<std::string>()(parts[0]) % 4 != 0);
  for (size_t i = 1; i < std::min(parts.size(), kMost); ++i)
    runCommand(wordsOf(parts[i]), parts[0]);
  return 0;
}
