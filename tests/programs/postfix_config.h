// A configuration folder for Postfix's tools.

#ifndef POSTWELL_TESTS_POSTFIX_CONFIG_H_
#define POSTWELL_TESTS_POSTFIX_CONFIG_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/files.h"

// Writes main.cf into the folder, and makes it old: Postfix waits two seconds for a
// fresh one, which might still be being written.
inline void writePostfixConfig(const std::string &folder, const std::string &text) {
  const std::string path = folder + "/main.cf";
  writeFile(path, text);
  const timespec longAgo[2] = {{1, 0}, {1, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0) << path;
}

#endif  // POSTWELL_TESTS_POSTFIX_CONFIG_H_
