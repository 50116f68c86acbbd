// Tests and conversions of texts, by bytes: no result depends on the locale.

#include "common/text.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <locale>

namespace {

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

bool isAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

}  // namespace

std::string printable(const std::string &text) {
  static const char kDigits[] = "0123456789abcdef";
  std::string shown;
  for (const char c : text) {
    if (isAscii(c) && !isControl(c)) {
      shown += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return shown;
}

std::string inQuotes(const std::string &text) { return '"' + printable(text) + '"'; }

bool hasControl(const std::string &text) {
  return std::any_of(text.begin(), text.end(), isControl);
}

bool isMadeOf(const std::string &text, const char *others) {
  return std::all_of(text.begin(), text.end(), [others](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && std::strchr(others, c) != nullptr);
  });
}

bool isUtf8(const std::string &text) {
  if (std::all_of(text.begin(), text.end(), isAscii)) return true;  // and fast
  // The classic locale's converter for char32_t is UTF-8 by definition, but lets
  // halves of surrogate pairs pass.
  using Converter = std::codecvt<char32_t, char, std::mbstate_t>;
  const auto &converter = std::use_facet<Converter>(std::locale::classic());
  std::u32string decoded(text.size(), U'\0');
  std::mbstate_t state{};
  const char *from = text.data();
  char32_t *to = decoded.data();
  const auto result =
      converter.in(state, from, from + text.size(), from, to, to + decoded.size(), to);
  return result == std::codecvt_base::ok &&
         std::none_of(decoded.begin(), decoded.end(),
                      [](char32_t c) { return c >= 0xd800 && c <= 0xdfff; });
}

std::string lowerCase(std::string text) {
  for (char &c : text)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return text;
}
