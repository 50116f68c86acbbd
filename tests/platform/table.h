// A settings table that frees itself.

#ifndef POSTWELL_TESTS_PLATFORM_TABLE_H_
#define POSTWELL_TESTS_PLATFORM_TABLE_H_

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "kestcore.h"

class Table {
 public:
  explicit Table(std::initializer_list<std::pair<std::string, std::string>> pairs = {})
      : table_(KLIBCSzHashAlloc(1024)) {
    EXPECT_NE(table_, nullptr);
    for (const auto &[key, value] : pairs) set(key, value);
  }
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;
  ~Table() { KLIBCSzHashFree(table_); }

  void set(const std::string &key, const std::string &value) {
    EXPECT_EQ(KLIBCSzHashSetValue(&table_, key.c_str(), value.c_str()), 0);
  }

  // "(absent)" when there is no such key.
  std::string get(const std::string &key) const {
    const char *value = KLIBCSzHashGetValue(table_, key.c_str());
    return value == nullptr ? "(absent)" : value;
  }

  int load(const std::string &path) { return KLIBCFileGetPair(path.c_str(), &table_); }

  int save(const std::string &path) const {
    return KLIBCFileSetKeys(path.c_str(), table_, 0, "%s=\"%s\"\n");
  }

  KLIBCSzHash *raw() const { return table_; }

 private:
  KLIBCSzHash *table_;
};

#endif  // POSTWELL_TESTS_PLATFORM_TABLE_H_
