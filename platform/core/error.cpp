// The last failure of each thread.

#include "error.h"

namespace {
thread_local int lastError = KLIBC_ERR_NONE;
}

int kestcore::fail(KLIBCError code) noexcept {
  lastError = code;
  return -1;
}

int KLIBCErrGet(void) { return lastError; }
