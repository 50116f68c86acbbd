// Anything at all as a file with sections, among them that of the blocklists: what is
// read must be what a plain reading of the bytes gives, what is written must be read
// back, and no other line may change.
//
// The section, the key that is set in it and the value follow the file after lines "=".

#include <kestcore.h>
#include <spam_filter.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz.h"

namespace {

constexpr char kFile[] = "/usr/local/etc/services.d/postwell_port";
constexpr char kBlocklists[] = "/var/packages/Postwell/etc/spamlist.conf";
constexpr char kSettings[] = "/var/packages/Postwell/etc/postwell.conf";
constexpr auto npos = std::string::npos;

using Texts = std::vector<std::string>;
using Servers = std::list<DNSBinfo>;

// ---- the plain reading

bool isSame(const std::string &one, const std::string &other) {
  const auto lower = [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  };
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [lower](char x, char y) { return lower(x) == lower(y); });
}

std::optional<std::string> headerOf(const std::string &line) {
  const std::string text = trimmed(line);
  if (text.size() < 2 || text.front() != '[' || text.back() != ']') return std::nullopt;
  return trimmed(text.substr(1, text.size() - 2));
}

bool isHeaderOf(const std::string &line, const std::string &section) {
  const auto name = headerOf(line);
  return name && isSame(*name, section);
}

bool isSectionKey(const std::string &key) { return isKey(key) && key[0] != ';'; }

// The value that the line gives the key.
std::optional<std::string> valueIn(const std::string &line, const std::string &key) {
  const size_t equals = line.find('=');
  if (equals == npos || line.find('\0') != npos) return std::nullopt;
  const std::string name = trimmed(line.substr(0, equals));
  if (!isSectionKey(name) || !isSame(name, key)) return std::nullopt;
  if (line.find('"', equals) == npos) return trimmed(line.substr(equals + 1));
  return quotedIn(line.substr(equals));
}

// The last one that the first section of this name gives the key.
std::optional<std::string> valueOf(const std::string &text, const std::string &section,
                                   const std::string &key) {
  const Texts lines = linesOf(text);
  const auto isHeader = [&section](const auto &line) {
    return isHeaderOf(line, section);
  };
  auto line = std::find_if(lines.begin(), lines.end(), isHeader);
  std::optional<std::string> value;
  while (line != lines.end() && ++line != lines.end() && !headerOf(*line))
    if (const auto found = valueIn(*line, key)) value = found;
  return value;
}

// ---- the host's functions

void checkHeaders(const std::string &text, const std::string &section) {
  for (const std::string &line : linesOf(text)) {
    const int length = static_cast<int>(line.size());
    expect(KLIBCIFileIsSection(line.data(), length) == (headerOf(line) ? 1 : 0) &&
               KLIBCIFileMatchSection(line.data(), length, section.c_str()) ==
                   (isHeaderOf(line, section) ? 1 : 0),
           "a header is none, or the other way round");
  }
}

void checkValue(const std::string &section, const std::string &key,
                const std::optional<std::string> &value, size_t size) {
  std::string buffer(size, 'x');
  const int result = KLIBCFileGetSectionValue(kFile, section.c_str(), key.c_str(),
                                              buffer.data(), static_cast<int>(size));
  const bool fits = value && value->size() < size;
  expect(fits ? result == 0 && buffer.c_str() == *value : result < 0 && buffer[0] == '\0',
         "a value differs");
}

// Whether `after` is `before` with something put in at one place.
bool isPutIn(const std::string &before, const std::string &after) {
  const auto front =
      std::mismatch(before.begin(), before.end(), after.begin(), after.end());
  const auto back =
      std::mismatch(before.rbegin(), before.rend(), after.rbegin(), after.rend());
  return front.first - before.begin() + (back.first - before.rbegin()) >=
         static_cast<ptrdiff_t>(before.size());
}

// Whether lines that give the key a value, and no others, have become `fresh`.
bool isReplaced(const Texts &before, const Texts &after, const std::string &key,
                const std::string &fresh) {
  return std::equal(before.begin(), before.end(), after.begin(), after.end(),
                    [&](const std::string &old, const std::string &now) {
                      return now == old || (now == fresh && valueIn(old, key));
                    });
}

void checkSetting(const std::string &text, const std::string &section,
                  const std::string &key, const std::string &value) {
  const bool taken = section.find_first_of("]\n") == npos &&
                     trimmed(section) == section && isSectionKey(key) &&
                     value.find('\n') == npos;
  const int result = KLIBCFileSetSectionValue(kFile, section.c_str(), key.c_str(),
                                              value.c_str(), "%s=\"%s\"\n");
  expect(result == (taken ? 0 : -1), "a value is taken, or is not");
  const std::string changed = readWhole(kFile);
  if (!taken) return expect(changed == text, "a refused value changes the file");
  checkValue(section, key, value, value.size() + 1);
  expect(valueOf(text, section, key) ? isReplaced(linesOf(text), linesOf(changed), key,
                                                  key + "=\"" + value + "\"\n")
                                     : isPutIn(text, changed),
         "another line has changed");
}

// ---- the blocklists

Texts namesIn(const std::string &text, const std::string &section) {
  Texts names;
  bool inside = false;
  for (const std::string &line : linesOf(text)) {
    if (inside && line[0] == '[') return names;
    const std::string name = trimmed(line.substr(0, line.find('\0')));
    if (inside && !name.empty()) names.push_back(name);
    inside = inside || isHeaderOf(line, section);
  }
  return names;
}

Servers serversIn(const std::string &text) {
  Servers servers;
  for (const std::string &name : namesIn(text, "RBL server"))
    servers.push_back({name, RBL});
  for (const std::string &name : namesIn(text, "RHSBL server"))
    servers.push_back({name, RHSBL});
  return servers;
}

Servers load() {
  DNSBL &lists = *DNSBL::getInstance();
  lists.setDNSBList({});
  expect(lists.loadSettings() == 0, "the blocklists cannot be read");
  return lists.getDNSBList();
}

// Neighbours are merged; and a name in brackets, which stood behind a blank, is a header
// from then on. But for that, what was loaded is what is loaded again.
void checkBlocklists(const std::string &text) {
  Servers servers = load();
  expect(servers == serversIn(text), "the blocklists differ");
  expect(DNSBL::getInstance()->applySettings() == 0, "the blocklists cannot be written");
  const std::string saved = readWhole(kBlocklists);
  const Servers again = load();
  expect(again == serversIn(saved), "the saved blocklists differ");
  servers.unique();
  const bool isPlain = std::none_of(servers.begin(), servers.end(), [](const auto &one) {
    return one.strServerName[0] == '[';
  });
  if (!isPlain) return;
  expect(again == servers, "what is saved is not read back");
  expect(DNSBL::getInstance()->applySettings() == 0 && readWhole(kBlocklists) == saved,
         "saving again makes another file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Texts parts = partsOf(data, size);
  for (const char *usual : {"mail_smtp\n", "dst.ports\n", "25/tcp\n"})
    if (parts.size() < 4) parts.push_back(usual);
  const std::string &text = parts[0];
  const std::string section = wordOf(parts[1]), key = wordOf(parts[2]);
  writeWhole(kFile, text);
  checkHeaders(text, section);
  checkValue(section, key, key.empty() ? std::nullopt : valueOf(text, section, key), 64);
  checkSetting(text, section, key, wordOf(parts[3]));
  writeWhole(kSettings, "smtp_enabled=\"no\"\n");  // or Postfix would have to follow
  writeWhole(kBlocklists, text);
  checkBlocklists(text);
  return 0;
}
