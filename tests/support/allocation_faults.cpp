// The dynamic linker binds the library's operator new and delete to these as well.

#include "support/allocation_faults.h"

#include <cstdlib>
#include <new>

namespace {
thread_local long left = -1;  // below 0: all succeed
thread_local bool failed = false;
thread_local bool once = false;
}  // namespace

namespace allocations {

void failAfter(long count) {
  left = count;
  failed = false;
  once = false;
}

void failOnceAfter(long count) {
  failAfter(count);
  once = true;
}

bool stopFailing() {
  left = -1;
  return failed;
}

}  // namespace allocations

void *operator new(std::size_t size, const std::nothrow_t & /*tag*/) noexcept {
  if (left == 0) {
    failed = true;
    if (once) left = -1;
    return nullptr;
  }
  if (left > 0) left--;
  return malloc(size);
}

void *operator new(std::size_t size) {
  if (void *memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}

void operator delete(void *memory) noexcept { free(memory); }
void operator delete(void *memory, std::size_t) noexcept { free(memory); }
