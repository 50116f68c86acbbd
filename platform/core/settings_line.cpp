// What a line of a settings file or of a file with sections means.
//
// The same rule decides which keys are written and which are read, so nothing can
// be written that would read back as something else. Nothing is escaped: a value
// may hold quotes because only the first and the last of the line count.

#include "settings_line.h"

#include <algorithm>

namespace kestcore {
namespace {

constexpr std::string_view kBlanks = " \t\r\n\v\f";
constexpr auto npos = std::string_view::npos;

char lower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Splits at the first "="; false when what stands before it is no key, or when a
// NUL byte would make key or value end early in the hands of a C program.
bool splitLine(std::string_view line, SettingsLine *parts) noexcept {
  const size_t equals = line.find('=');
  if (equals == npos || line.find('\0') != npos) return false;
  *parts = {trim(line.substr(0, equals)), line.substr(equals + 1)};
  return isKey(parts->key);
}

// Narrows the value to what stands between its first and its last quote.
bool unquote(std::string_view *value) noexcept {
  const size_t first = value->find('"');
  if (first == npos) return false;
  const size_t last = value->rfind('"');
  if (last == first) return false;
  *value = value->substr(first + 1, last - first - 1);
  return true;
}

}  // namespace

std::string_view trim(std::string_view text) noexcept {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool isKey(std::string_view key) noexcept {
  // Three searches for one byte are many times faster than find_first_of().
  return !key.empty() && key.front() != '#' && key.front() != '[' &&
         key.find('=') == npos && key.find('"') == npos && key.find('\n') == npos &&
         trim(key).size() == key.size();
}

bool isValue(std::string_view value) noexcept { return value.find('\n') == npos; }

bool parseLine(std::string_view line, SettingsLine *parsed) noexcept {
  return splitLine(line, parsed) && unquote(&parsed->value);
}

bool parseSectionLine(std::string_view line, SettingsLine *parsed) noexcept {
  if (!splitLine(line, parsed) || parsed->key.front() == ';') return false;
  if (unquote(&parsed->value)) return true;
  parsed->value = trim(parsed->value);
  return parsed->value.find('"') == npos;
}

bool parseHeader(std::string_view line, std::string_view *name) noexcept {
  line = trim(line);
  if (line.size() < 2 || line.front() != '[' || line.back() != ']') return false;
  *name = trim(line.substr(1, line.size() - 2));
  return true;
}

bool equalNames(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

bool LineFormat::parse(const char *format) {
  const std::string_view text = format == nullptr ? "%s=\"%s\"\n" : format;
  if (text.empty() || text.find('\n') != text.size() - 1) return false;
  size_t part = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      literals_[part] += text[i];
      continue;
    }
    ++i;  // the newline at the end keeps this inside
    if (text[i] == '%')
      literals_[part] += '%';
    else if (text[i] != 's' || ++part == literals_.size())
      return false;
  }
  return part + 1 == literals_.size();
}

void LineFormat::append(std::string_view key, std::string_view value,
                        std::string *text) const {
  text->append(literals_[0]).append(key);
  text->append(literals_[1]).append(value);
  text->append(literals_[2]);
}

}  // namespace kestcore
