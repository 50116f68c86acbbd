// What the tests of the library share: an empty package with recorders for
// scripts, the platform with its switches, and the system log, which must hold
// exactly the lines that a test expects.

#ifndef POSTWELL_TESTS_LIBRARY_TEST_H_
#define POSTWELL_TESTS_LIBRARY_TEST_H_

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/package_tree.h"
#include "support/platform_faults.h"
#include "support/syslog_reader.h"

class LibraryTest : public testing::Test {
 protected:
  LibraryTest() { platform::reset(); }
  // A line that no expectation took is a failure.
  void TearDown() override { expectLog({}); }

  // The lines logged since the last call are these, each as "source.cpp: text" at
  // LOG_ERR or "debug source.cpp: text" at LOG_DEBUG (the line number, any number,
  // follows the source's name).
  void expectLog(const std::vector<std::string> &expected);

  // The platform's calls since the last call whose name is among `functions`.
  static std::vector<std::string> callsOf(const std::vector<std::string> &functions);

  // Writes the settings file with every key at its default.
  static void writeDefaults();

  // The value of `key` in the settings file, "(absent)" without one.
  static std::string stored(const std::string &key);

  PackageTree tree;
  SyslogReader log;
};

#endif  // POSTWELL_TESTS_LIBRARY_TEST_H_
