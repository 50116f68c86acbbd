// What the fuzzers share.

#ifndef POSTWELL_TESTS_FUZZ_H_
#define POSTWELL_TESTS_FUZZ_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Says what is wrong and ends the fuzzer, which leaves the input behind.
[[noreturn]] void fail(const std::string &what);
void expect(bool holds, const std::string &what);

// Of files in the private root.
std::string readWhole(const std::string &path);
void writeWhole(const std::string &path, const std::string &text);

// The text's lines, each with its newline.
std::vector<std::string> linesOf(const std::string &text);

// The texts that lines "=" part; there is one at least.
std::vector<std::string> partsOf(const uint8_t *data, size_t size);

// A part as a C text, without its newline.
std::string wordOf(const std::string &part);

// The text without white space at both ends.
std::string trimmed(const std::string &text);

// Whether a line key="value" can have this key.
bool isKey(const std::string &key);

// What stands between the first and the last double quote.
std::optional<std::string> quotedIn(const std::string &text);

#endif  // POSTWELL_TESTS_FUZZ_H_
