// The string-to-string table behind KLIBCSzHash, for the sources that fill it from
// a file or write it to one.

#ifndef KESTCORE_HASH_H_
#define KESTCORE_HASH_H_

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "kestcore.h"

struct KLIBCSzHash {
  struct Pair {
    std::string key;
    std::string value;
  };

  static constexpr size_t kAbsent = static_cast<size_t>(-1);

  // Position of the key in `pairs`, or kAbsent.
  size_t find(std::string_view key) const;

  // Puts or replaces; throws when memory is short, with the table as it was.
  void set(std::string_view key, std::string_view value);

  // In the order of their first setting. A deque because texts handed out must
  // stay where they are while the table grows.
  std::deque<Pair> pairs;

  // Its keys point into `pairs`.
  std::unordered_map<std::string_view, size_t> index;
};

#endif  // KESTCORE_HASH_H_
