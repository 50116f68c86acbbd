// KLIBCSzHash: pairs in order, with an index. The table never moves, although the
// interface would let it.

#include "hash.h"

#include <memory>
#include <utility>

#include "error.h"

using kestcore::fail;
using kestcore::guarded;

size_t KLIBCSzHash::find(std::string_view key) const {
  const auto found = index.find(key);
  return found == index.end() ? kAbsent : found->second;
}

void KLIBCSzHash::set(std::string_view key, std::string_view value) {
  const size_t position = find(key);
  if (position != kAbsent) {
    std::string copy(value);
    pairs[position].value.swap(copy);
    return;
  }
  pairs.push_back({std::string(key), std::string(value)});
  try {
    index.emplace(pairs.back().key, pairs.size() - 1);
  } catch (...) {
    pairs.pop_back();
    throw;
  }
}

KLIBCSzHash *KLIBCSzHashAlloc(int size) {
  if (size <= 0) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  return guarded<KLIBCSzHash *>(nullptr, [&] {
    auto table = std::make_unique<KLIBCSzHash>();
    table->index.reserve(static_cast<size_t>(size));
    return table.release();
  });
}

const char *KLIBCSzHashGetValue(const KLIBCSzHash *table, const char *key) {
  if (table == nullptr || key == nullptr) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  const size_t position = table->find(key);
  if (position == KLIBCSzHash::kAbsent) {
    fail(KLIBC_ERR_NOT_FOUND);
    return nullptr;
  }
  return table->pairs[position].value.c_str();
}

int KLIBCSzHashSetValue(KLIBCSzHash **table, const char *key, const char *value) {
  if (table == nullptr || *table == nullptr || key == nullptr || value == nullptr ||
      *key == '\0')
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] {
    (*table)->set(key, value);
    return 0;
  });
}

void KLIBCSzHashFree(KLIBCSzHash *table) { delete table; }
