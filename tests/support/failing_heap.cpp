#include "support/failing_heap.h"

#include <malloc.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace TestSupport {
namespace {

thread_local FailingHeap* current = nullptr;

constexpr int fence = 0xA5;

/// Behind a block's own bytes: fence to the end of what the C library gave, at the very end the
/// number of the block's own bytes.
std::size_t FenceEnd(void* block) {
  return malloc_usable_size(block) - sizeof(std::size_t);
}

void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
  if (current && current->Fails(size)) throw std::bad_alloc();
  const std::size_t room = size + 2 * sizeof size;
  void* const block = std::aligned_alloc(alignment, (room / alignment + 1) * alignment);
  if (!block) throw std::bad_alloc();
  char* const bytes = static_cast<char*>(block);
  const std::size_t end = FenceEnd(block);
  std::memset(bytes + size, fence, end - size);
  std::memcpy(bytes + end, &size, sizeof size);
  return block;
}

void Release(void* block) {
  if (!block) return;
  const char* const bytes = static_cast<char*>(block);
  const std::size_t end = FenceEnd(block);
  std::size_t i = 0;
  std::memcpy(&i, bytes + end, sizeof i);
  while (i < end && static_cast<unsigned char>(bytes[i]) == fence)
    ++i;
  if (i != end) {
    std::fputs("something was written behind a block of memory\n", stderr);
    std::abort();
  }
  std::free(block);
}

}  // namespace

FailingHeap::FailingHeap(long from, Extent extent) : extent(extent), left(from) {
  current = this;
}

FailingHeap::FailingHeap(std::size_t most) : most(most) {
  current = this;
}

FailingHeap::~FailingHeap() {
  current = nullptr;
}

bool FailingHeap::Fails(std::size_t size) {
  const bool fails = left == 0 || (left < 0 && extent == Extent::All) || size > most;
  --left;
  hasFailed = hasFailed || fails;
  return fails;
}

}  // namespace TestSupport

// clang-format off
void* operator new(std::size_t size) { return TestSupport::Allocate(size); }
void* operator new[](std::size_t size) { return TestSupport::Allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return TestSupport::Allocate(size, static_cast<std::size_t>(alignment));
}
// The C++ library's would come down to the one above; a sanitizer's would not.
void* operator new[](std::size_t size, std::align_val_t alignment) { return operator new(size, alignment); }
void operator delete(void* block) noexcept { TestSupport::Release(block); }
void operator delete[](void* block) noexcept { TestSupport::Release(block); }
void operator delete(void* block, std::size_t) noexcept { TestSupport::Release(block); }
void operator delete[](void* block, std::size_t) noexcept { TestSupport::Release(block); }
void operator delete(void* block, std::align_val_t) noexcept { TestSupport::Release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { TestSupport::Release(block); }
void operator delete[](void* block, std::align_val_t) noexcept { TestSupport::Release(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { TestSupport::Release(block); }
// clang-format on
