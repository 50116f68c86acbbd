// SQLite takes other allocation functions only while it is shut down: the library has
// initialised it when this program starts, and no connection is open yet.

#include "support/memory_faults.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace memory_faults {

namespace {

sqlite3_mem_methods real;
long counted = 0, failing = 0;  // failing 0: none
bool failEveryLater = false, failed = false;

bool fails() {
  if (failing == 0) return false;
  ++counted;
  if (counted < failing || (counted > failing && !failEveryLater)) return false;
  failed = true;
  return true;
}

void *allocate(int size) { return fails() ? nullptr : real.xMalloc(size); }
void *reallocate(void *memory, int size) {
  return fails() ? nullptr : real.xRealloc(memory, size);
}

__attribute__((constructor)) void install() {
  sqlite3_shutdown();
  const bool known = sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real) == SQLITE_OK;
  sqlite3_mem_methods ours = real;
  ours.xMalloc = allocate;
  ours.xRealloc = reallocate;
  if (!known || sqlite3_config(SQLITE_CONFIG_MALLOC, &ours) != SQLITE_OK ||
      sqlite3_initialize() != SQLITE_OK) {
    fprintf(stderr, "SQLite does not take the test's memory\n");
    abort();
  }
}

}  // namespace

void fail(long nth, bool all) {
  counted = 0;
  failing = nth;
  failEveryLater = all;
  failed = false;
}

bool stopFailing() {
  failing = 0;
  return failed;
}

}  // namespace memory_faults
