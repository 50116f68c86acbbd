#include "support/connections.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace {

// With room for all that a test opens: memory may be failing when one is added.
std::vector<sqlite3 *> opened = [] {
  std::vector<sqlite3 *> none;
  none.reserve(10'000);
  return none;
}();
bool closeFails = false;

template <typename Function>
Function *real(Function * /*declared*/, const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace connections {

int left() { return static_cast<int>(opened.size()); }

void failClose() { closeFails = true; }

void closeLeft() {
  for (sqlite3 *connection : opened) EXPECT_EQ(sqlite3_close_v2(connection), SQLITE_OK);
  opened.clear();
}

}  // namespace connections

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int sqlite3_open(const char *path, sqlite3 **connection) {
  const int code = real(&sqlite3_open, "sqlite3_open")(path, connection);
  if (*connection != nullptr) opened.push_back(*connection);
  return code;
}

REPLACED int sqlite3_close(sqlite3 *connection) {
  if (std::exchange(closeFails, false)) return SQLITE_BUSY;
  const int code = real(&sqlite3_close, "sqlite3_close")(connection);
  if (code == SQLITE_OK)
    opened.erase(std::remove(opened.begin(), opened.end(), connection), opened.end());
  return code;
}
