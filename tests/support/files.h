// Small helpers for tests that work on files.

#ifndef POSTWELL_TESTS_FILES_H_
#define POSTWELL_TESTS_FILES_H_

#include <sys/types.h>

#include <string>

// Writes the text, replacing the file; fails the running test when it cannot.
void writeFile(const std::string &path, const std::string &text, mode_t mode = 0644);

// Writes the text at the file's end, making it if need be; fails the running test when it
// cannot.
void appendFile(const std::string &path, const std::string &text);

// The whole file; fails the running test and gives "" when it cannot be read.
std::string readFile(const std::string &path);

bool fileExists(const std::string &path);

#endif  // POSTWELL_TESTS_FILES_H_
