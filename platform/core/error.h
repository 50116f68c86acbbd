// How every function of this library fails: a code for the calling thread, and
// no exception beyond the C interface.

#ifndef KESTCORE_ERROR_H_
#define KESTCORE_ERROR_H_

#include <exception>

#include "kestcore.h"

namespace kestcore {

// Leaves `code` for KLIBCErrGet() and returns -1.
int fail(KLIBCError code) noexcept;

// Runs `work` for a function of the interface. Memory running out (the only thing
// that throws here) leaves its code and gives `failed`.
template <typename Result, typename Work>
Result guarded(Result failed, Work work) noexcept {
  try {
    return work();
  } catch (const std::exception &) {
    fail(KLIBC_ERR_OUT_OF_MEMORY);
    return failed;
  }
}

}  // namespace kestcore

#endif  // KESTCORE_ERROR_H_
