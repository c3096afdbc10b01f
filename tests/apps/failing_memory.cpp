// Allocations that fail as planned. Those that fail otherwise are not looked at: the program runs
// with memory to spare.

#include "apps/failing_plan.h"

#include <cerrno>
#include <cstddef>
#include <new>

using TestSupport::IsChosen;
using TestSupport::Kind;

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

#pragma GCC visibility push(default)

// clang-format off
#define FAILS(name) IsChosen(name, Kind::Memory, __builtin_return_address(0))

extern "C" {
void* malloc(std::size_t size) {
  return FAILS("malloc") ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return FAILS("calloc") ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  return FAILS("realloc") ? nullptr : __libc_realloc(block, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return FAILS("aligned_alloc") ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  if (FAILS("posix_memalign")) return ENOMEM;
  *block = __libc_memalign(alignment, size);
  return 0;
}
}
// The C++ library's own come down to malloc, and then it would be the caller of each.
void* operator new(std::size_t size) {
  if (FAILS("operator new")) throw std::bad_alloc();
  return __libc_malloc(size);
}
void* operator new[](std::size_t size) {
  if (FAILS("operator new[]")) throw std::bad_alloc();
  return __libc_malloc(size);
}
// clang-format on

#pragma GCC visibility pop
