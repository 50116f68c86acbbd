// Files of key="value" lines. Reading takes no lock: a file is only ever replaced
// as a whole, so a reader has the old one or the new one.

#include <string>
#include <string_view>
#include <vector>

#include "error.h"
#include "hash.h"
#include "settings_line.h"
#include "text_file.h"

using namespace kestcore;

namespace {

// The text with every key of the table at the table's value.
std::string withKeys(std::string_view content, const KLIBCSzHash &table,
                     const LineFormat &format) {
  std::string text;
  text.reserve(content.size());
  std::vector<bool> written(table.pairs.size());
  std::string_view line;
  while (nextLine(&content, &line)) {
    SettingsLine parsed;
    const size_t position =
        parseLine(line, &parsed) ? table.find(parsed.key) : KLIBCSzHash::kAbsent;
    if (position == KLIBCSzHash::kAbsent) {
      text += line;
      continue;
    }
    format.append(parsed.key, table.pairs[position].value, &text);
    written[position] = true;
  }
  for (size_t i = 0; i < written.size(); ++i) {
    if (written[i]) continue;
    if (!text.empty() && text.back() != '\n') text += '\n';
    format.append(table.pairs[i].key, table.pairs[i].value, &text);
  }
  return text;
}

int setKeys(const char *path, const KLIBCSzHash &table, const char *format) {
  LineFormat lineFormat;
  if (!lineFormat.parse(format)) return fail(KLIBC_ERR_BAD_PARAMETERS);
  for (const KLIBCSzHash::Pair &pair : table.pairs)
    if (!isKey(pair.key) || !isValue(pair.value)) return fail(KLIBC_ERR_VALUE_REFUSED);
  FileUpdate update;
  if (update.begin(path) < 0) return -1;
  return update.replace(withKeys(update.content(), table, lineFormat));
}

int getKeyValue(const char *path, std::string_view key, char *buffer, int size) {
  std::string content;
  if (readFile(path, &content) < 0) return -1;
  std::string_view rest = content, line, value;
  while (nextLine(&rest, &line)) {
    SettingsLine parsed;
    if (parseLine(line, &parsed) && parsed.key == key) value = parsed.value;
  }
  return copyOut(value, buffer, size);
}

}  // namespace

int KLIBCFileGetPair(const char *path, KLIBCSzHash **table) {
  if (path == nullptr || table == nullptr || *table == nullptr)
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] {
    std::string content;
    if (readFile(path, &content) < 0) return -1;
    int count = 0;
    std::string_view rest = content, line;
    while (nextLine(&rest, &line)) {
      SettingsLine parsed;
      if (!parseLine(line, &parsed)) continue;
      (*table)->set(parsed.key, parsed.value);
      ++count;
    }
    return count;
  });
}

int KLIBCFileSetKeys(const char *path, const KLIBCSzHash *table, int /*flags*/,
                     const char *format) {
  if (path == nullptr || table == nullptr) return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] { return setKeys(path, *table, format); });
}

int KLIBCFileGetKeyValue(const char *path, const char *key, char *buffer, int size,
                         int /*flags*/) {
  if (buffer == nullptr || size <= 0) return fail(KLIBC_ERR_BAD_PARAMETERS);
  buffer[0] = '\0';
  if (path == nullptr || key == nullptr || *key == '\0')
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] { return getKeyValue(path, key, buffer, size); });
}

int KLIBCFileSetKeyValue(const char *path, const char *key, const char *value,
                         const char *format) {
  if (path == nullptr || key == nullptr || value == nullptr)
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] {
    KLIBCSzHash table;
    table.set(key, value);
    return setKeys(path, table, format);
  });
}
