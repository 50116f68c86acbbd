// The grammar of one line: settings lines, section headers, and the format by which
// a line is written.

#ifndef KESTCORE_SETTINGS_LINE_H_
#define KESTCORE_SETTINGS_LINE_H_

#include <array>
#include <string>
#include <string_view>

namespace kestcore {

struct SettingsLine {
  std::string_view key;
  std::string_view value;
};

// The text without blanks (blank, tab, CR, LF, VT, FF) at both ends.
std::string_view trim(std::string_view text) noexcept;

// Whether a key can be written and read back.
bool isKey(std::string_view key) noexcept;

// Whether a value can be written and read back.
bool isValue(std::string_view value) noexcept;

// Takes a line apart: key="value". False for a comment.
bool parseLine(std::string_view line, SettingsLine *parsed) noexcept;

// The same inside a section: also key = value, and ";" begins a comment.
bool parseSectionLine(std::string_view line, SettingsLine *parsed) noexcept;

// False when the line is no section header, else its name is in *name.
bool parseHeader(std::string_view line, std::string_view *name) noexcept;

// Equal without regard to the case of ASCII letters.
bool equalNames(std::string_view a, std::string_view b) noexcept;

// A line with two "%s". Callers' formats never reach printf.
class LineFormat {
 public:
  // False when the format is none; null is the default format.
  bool parse(const char *format);

  void append(std::string_view key, std::string_view value, std::string *text) const;

 private:
  std::array<std::string, 3> literals_;  // before, between and after key and value
};

}  // namespace kestcore

#endif  // KESTCORE_SETTINGS_LINE_H_
