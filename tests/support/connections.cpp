#include "support/connections.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <set>

namespace {

std::set<sqlite3 *> opened;

template <typename Function>
Function *real(Function * /*declared*/, const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace connections {

int left() { return static_cast<int>(opened.size()); }

void closeLeft() {
  for (sqlite3 *connection : opened) EXPECT_EQ(sqlite3_close_v2(connection), SQLITE_OK);
  opened.clear();
}

}  // namespace connections

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int sqlite3_open(const char *path, sqlite3 **connection) {
  const int code = real(&sqlite3_open, "sqlite3_open")(path, connection);
  if (*connection != nullptr) opened.insert(*connection);
  return code;
}

REPLACED int sqlite3_close(sqlite3 *connection) {
  const int code = real(&sqlite3_close, "sqlite3_close")(connection);
  if (code == SQLITE_OK) opened.erase(connection);
  return code;
}
