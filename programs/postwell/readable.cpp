// Whatever the locale: where a terminal does not know UTF-8, its letters look wrong, and
// nothing worse.

#include "readable.h"

#include <algorithm>
#include <iterator>

#include "common/text.h"

namespace {

struct Range {
  char32_t first, last;
};

constexpr Range kUnshown[] = {
    {0x0000, 0x001f},    // controls
    {0x007f, 0x009f},    // and more of them
    {0x061c, 0x061c},    // order of Arabic
    {0x200b, 0x200b},    // a blank without width
    {0x200e, 0x200f},    // order of what follows
    {0x2028, 0x202e},    // ends of lines and paragraphs; order
    {0x2060, 0x206f},    // without width; order
    {0xfeff, 0xfeff},    // without width
    {0xfff9, 0xfffb},    // notes above the line
    {0xfffe, 0xffff},    // none at all
    {0xe0000, 0xe007f},  // tags, without width
};

bool isShown(char32_t character) {
  return std::none_of(std::begin(kUnshown), std::end(kUnshown),
                      [character](const Range &range) {
                        return character >= range.first && character <= range.last;
                      });
}

// Of the character that begins with this byte.
size_t lengthOf(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xe0) return 2;
  return lead < 0xf0 ? 3 : 4;
}

char32_t decoded(const std::string &bytes) {
  const auto lead = static_cast<unsigned char>(bytes.front());
  char32_t character = bytes.size() == 1 ? lead : lead & (0x7fu >> bytes.size());
  for (size_t i = 1; i < bytes.size(); ++i)
    character = character << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3fu);
  return character;
}

}  // namespace

std::string readable(const std::string &text) {
  if (!isUtf8(text)) return printable(text);
  std::string shown;
  for (size_t at = 0; at < text.size();) {
    const std::string bytes =
        text.substr(at, lengthOf(static_cast<unsigned char>(text[at])));
    shown += isShown(decoded(bytes)) ? bytes : printable(bytes);
    at += bytes.size();
  }
  return shown;
}
