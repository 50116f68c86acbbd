// The statements that the library gives SQLite, to the letter. A test program that links
// this file stands between the two.

#ifndef POSTWELL_TESTS_SQL_RECORDER_H_
#define POSTWELL_TESTS_SQL_RECORDER_H_

#include <functional>
#include <string>
#include <vector>

namespace sql {

// Every text run or prepared since the last call, oldest first; forgets it.
std::vector<std::string> takeStatements();

// Called with each text before it is run or prepared, with the test's own as well.
extern std::function<void(const std::string &)> onStatement;

}  // namespace sql

#endif  // POSTWELL_TESTS_SQL_RECORDER_H_
