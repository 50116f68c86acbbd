#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

void fail(const std::string &what) {
  fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
  abort();
}

void expect(bool holds, const std::string &what) {
  if (!holds) fail(what);
}

std::string readWhole(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (in.peek() != EOF) text << in.rdbuf();  // of nothing it would make a failure
  expect(in.is_open() && text.good(), "cannot read " + path);
  return text.str();
}

void writeWhole(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary);
  if (!(out << text).flush()) fail("cannot write " + path + " (run me by script/fuzz)");
}

std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size(); at += lines.back().size())
    lines.push_back(text.substr(at, std::min(text.find('\n', at), text.size()) + 1 - at));
  return lines;
}

std::vector<std::string> partsOf(const uint8_t *data, size_t size) {
  std::vector<std::string> parts(1);
  for (const std::string &line :
       linesOf(std::string(reinterpret_cast<const char *>(data), size)))
    if (line == "=\n")
      parts.emplace_back();
    else
      parts.back() += line;
  return parts;
}

std::string wordOf(const std::string &part) {
  const std::string text = part.substr(0, part.find('\0'));
  return !text.empty() && text.back() == '\n' ? text.substr(0, text.size() - 1) : text;
}

std::string trimmed(const std::string &text) {
  const char *const kBlanks = " \t\r\n\v\f";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

bool isKey(const std::string &key) {
  return !key.empty() && key[0] != '#' && key[0] != '[' &&
         key.find_first_of("=\"\n") == std::string::npos && trimmed(key) == key;
}

std::optional<std::string> quotedIn(const std::string &text) {
  const size_t first = text.find('"'), last = text.rfind('"');
  if (first == last) return std::nullopt;
  return text.substr(first + 1, last - first - 1);
}
