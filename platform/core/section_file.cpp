// Files with [section] headers, our own port files as well as the host's smb.conf,
// whose values usually stand without quotes.

#include <string>
#include <string_view>

#include "error.h"
#include "settings_line.h"
#include "text_file.h"

using namespace kestcore;

namespace {

// Where the lines of a section stand in the text, its header excluded.
struct Body {
  bool found = false;
  size_t begin = 0;
  size_t end = 0;
};

Body findSection(std::string_view content, std::string_view section) noexcept {
  Body body;
  std::string_view rest = content, line, name;
  while (nextLine(&rest, &line)) {
    const size_t end = content.size() - rest.size();
    if (parseHeader(line, &name)) {
      if (body.found) return body;
      if (!equalNames(name, section)) continue;
      body = {true, end, end};
    } else if (body.found) {
      body.end = end;
    }
  }
  return body;
}

bool hasKey(std::string_view line, std::string_view key,
            std::string_view *value) noexcept {
  SettingsLine parsed;
  if (!parseSectionLine(line, &parsed) || !equalNames(parsed.key, key)) return false;
  *value = parsed.value;
  return true;
}

bool isSectionName(std::string_view name) noexcept {
  return name.find_first_of("]\n") == std::string_view::npos &&
         trim(name).size() == name.size();
}

// Puts `added` at `position`, on a line of its own.
void insertLine(std::string *text, size_t position, std::string added) {
  if (position > 0 && (*text)[position - 1] != '\n') added.insert(0, "\n");
  text->insert(position, added);
}

// The text with every line of the key in the section replaced by `fresh`, or with
// `fresh` behind the section's last line that is not blank.
std::string withValue(std::string_view content, std::string_view section,
                      std::string_view key, const std::string &fresh) {
  const Body body = findSection(content, section);
  if (!body.found) {
    std::string text(content);
    insertLine(&text, text.size(), "[" + std::string(section) + "]\n" + fresh);
    return text;
  }
  std::string text(content.substr(0, body.begin));
  size_t last = text.size();
  bool replaced = false;
  std::string_view rest = content.substr(body.begin, body.end - body.begin), line, value;
  while (nextLine(&rest, &line)) {
    const bool match = hasKey(line, key, &value);
    replaced = replaced || match;
    text += match ? std::string_view(fresh) : line;
    if (!trim(line).empty()) last = text.size();
  }
  if (!replaced) insertLine(&text, last, fresh);
  text += content.substr(body.end);
  return text;
}

int getSectionValue(const char *path, const char *section, const char *key, char *buffer,
                    int size) {
  std::string content;
  if (readFile(path, &content) < 0) return -1;
  const Body body = findSection(content, section);
  std::string_view rest =
      std::string_view(content).substr(body.begin, body.end - body.begin);
  std::string_view line, value;
  bool found = false;
  while (nextLine(&rest, &line)) found = hasKey(line, key, &value) || found;
  if (!found) return fail(KLIBC_ERR_NOT_FOUND);
  return copyOut(value, buffer, size) < 0 ? -1 : 0;
}

int setSectionValue(const char *path, const char *section, const char *key,
                    const char *value, const char *format) {
  LineFormat lineFormat;
  if (!lineFormat.parse(format)) return fail(KLIBC_ERR_BAD_PARAMETERS);
  if (!isSectionName(section) || !isKey(key) || *key == ';' || !isValue(value))
    return fail(KLIBC_ERR_VALUE_REFUSED);
  std::string fresh;
  lineFormat.append(key, value, &fresh);
  FileUpdate update;
  if (update.begin(path) < 0) return -1;
  return update.replace(withValue(update.content(), section, key, fresh));
}

}  // namespace

int KLIBCFileGetSectionValue(const char *path, const char *section, const char *key,
                             char *buffer, int size) {
  if (buffer == nullptr || size <= 0) return fail(KLIBC_ERR_BAD_PARAMETERS);
  buffer[0] = '\0';
  if (path == nullptr || section == nullptr || key == nullptr || *key == '\0')
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] { return getSectionValue(path, section, key, buffer, size); });
}

int KLIBCFileSetSectionValue(const char *path, const char *section, const char *key,
                             const char *value, const char *format) {
  if (path == nullptr || section == nullptr || key == nullptr || value == nullptr)
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] { return setSectionValue(path, section, key, value, format); });
}

int KLIBCIFileIsSection(const char *line, int length) {
  std::string_view name;
  return line != nullptr && length > 0 &&
         parseHeader({line, static_cast<size_t>(length)}, &name);
}

int KLIBCIFileMatchSection(const char *line, int length, const char *section) {
  std::string_view name;
  return line != nullptr && length > 0 && section != nullptr &&
         parseHeader({line, static_cast<size_t>(length)}, &name) &&
         equalNames(name, section);
}
