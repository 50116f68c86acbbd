// One group of settings on its way between the settings file and the fields of a
// settings class: the host's string-to-string table with the encodings that the
// file uses ("yes"/"no", decimal numbers, of which scores have two decimals, text as it
// stands).

#ifndef POSTWELL_INTERNAL_SETTINGS_TABLE_H_
#define POSTWELL_INTERNAL_SETTINGS_TABLE_H_

#include <string>

#include "kestcore.h"

namespace internal {

class SettingsTable {
 public:
  SettingsTable() noexcept;
  ~SettingsTable();
  SettingsTable(const SettingsTable &) = delete;
  SettingsTable &operator=(const SettingsTable &) = delete;

  // False when there was no memory for the table; nothing else may be called then.
  bool isAllocated() const noexcept { return _table != nullptr; }

  // Fills the table from the settings file. Negative on failure.
  int readFile() noexcept;

  // Rewrites the table's keys in the settings file, leaving all others alone.
  // Negative on failure, also when one of the values could not be set: the file
  // then stays as it was.
  int writeFile() const noexcept;

  // The text of a key, or null when the file does not have it.
  const char *find(const char *key) const noexcept;

  // Each stores the key's value in the field; an absent key leaves the field.
  // Only "yes" is true; text that is no number reads as 0, a number beyond the
  // field's range as the nearest it can hold. get() of a text may throw
  // std::bad_alloc.
  void get(const char *key, bool &field) const noexcept;
  void get(const char *key, int &field) const noexcept;
  void get(const char *key, float &field) const noexcept;
  void get(const char *key, std::string &field) const;

  void set(const char *key, bool value) noexcept;
  void set(const char *key, int value) noexcept;
  void set(const char *key, float value) noexcept;
  void set(const char *key, const char *value) noexcept;
  // A text with a NUL inside has no line that reads back as it: it is not set.
  void set(const char *key, const std::string &value) noexcept;

 private:
  KLIBCSzHash *_table;
  bool _complete;  // every set() so far succeeded
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_SETTINGS_TABLE_H_
