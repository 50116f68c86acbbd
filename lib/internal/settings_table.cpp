// Used by every settings class, so that the encodings stand in one place. Works on
// the host's table and file functions, which do the parsing, locking and writing.

#include "internal/settings_table.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/paths.h"

namespace internal {

namespace {
constexpr int kInitialSize = 1024;
constexpr char kLineFormat[] = "%s=\"%s\"\n";
}  // namespace

SettingsTable::SettingsTable() noexcept
    : _table(KLIBCSzHashAlloc(kInitialSize)), _complete(true) {}

SettingsTable::~SettingsTable() { KLIBCSzHashFree(_table); }

int SettingsTable::readFile() noexcept {
  return KLIBCFileGetPair(paths::kSettings, &_table);
}

int SettingsTable::writeFile() const noexcept {
  if (!_complete) return -1;
  return KLIBCFileSetKeys(paths::kSettings, _table, 0, kLineFormat);
}

const char *SettingsTable::find(const char *key) const noexcept {
  return KLIBCSzHashGetValue(_table, key);
}

void SettingsTable::get(const char *key, bool &field) const noexcept {
  if (const char *value = find(key)) field = strcmp(value, "yes") == 0;
}

void SettingsTable::get(const char *key, int &field) const noexcept {
  const char *value = find(key);
  if (value == nullptr) return;
  const long number = strtol(value, nullptr, 10);
  // long is as wide as int on the appliance: clamp, so that both widths agree
  field = number > INT_MAX   ? INT_MAX
          : number < INT_MIN ? INT_MIN
                             : static_cast<int>(number);
}

void SettingsTable::get(const char *key, float &field) const noexcept {
  if (const char *value = find(key)) field = static_cast<float>(strtod(value, nullptr));
}

void SettingsTable::get(const char *key, std::string &field) const {
  if (const char *value = find(key)) field = value;
}

void SettingsTable::set(const char *key, bool value) noexcept {
  set(key, value ? "yes" : "no");
}

void SettingsTable::set(const char *key, int value) noexcept {
  char text[16];
  snprintf(text, sizeof text, "%d", value);  // 11 characters at most
  set(key, text);
}

void SettingsTable::set(const char *key, float value) noexcept {
  char text[64];  // 43 characters at most
  snprintf(text, sizeof text, "%.2f", static_cast<double>(value));
  set(key, text);
}

void SettingsTable::set(const char *key, const char *value) noexcept {
  if (KLIBCSzHashSetValue(&_table, key, value) < 0) _complete = false;
}

void SettingsTable::set(const char *key, const std::string &value) noexcept {
  if (value.find('\0') != std::string::npos) _complete = false;
  set(key, value.c_str());
}

}  // namespace internal
