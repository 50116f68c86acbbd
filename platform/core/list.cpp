// KLIBCSzList: a vector of texts. The list itself never moves, although the
// interface would let it.

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "error.h"

using kestcore::fail;
using kestcore::guarded;

struct KLIBCSzList {
  std::vector<std::string> items;
};

KLIBCSzList *KLIBCSzListAlloc(int size) {
  if (size <= 0) {
    fail(KLIBC_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  return guarded<KLIBCSzList *>(nullptr, [&] {
    auto list = std::make_unique<KLIBCSzList>();
    list->items.reserve(static_cast<size_t>(size));
    return list.release();
  });
}

int KLIBCSzListPush(KLIBCSzList **list, const char *item) {
  if (list == nullptr || *list == nullptr || item == nullptr)
    return fail(KLIBC_ERR_BAD_PARAMETERS);
  return guarded(-1, [&] {
    std::vector<std::string> &items = (*list)->items;
    if (items.size() >= static_cast<size_t>(std::numeric_limits<int>::max()))
      return fail(KLIBC_ERR_OUT_OF_MEMORY);
    items.emplace_back(item);
    return static_cast<int>(items.size());
  });
}

const char *KLIBCSzListGet(const KLIBCSzList *list, int index) {
  if (list == nullptr || index < 0 || static_cast<size_t>(index) >= list->items.size()) {
    fail(KLIBC_ERR_NOT_FOUND);
    return nullptr;
  }
  return list->items[static_cast<size_t>(index)].c_str();
}

void KLIBCSzListFree(KLIBCSzList *list) { delete list; }
