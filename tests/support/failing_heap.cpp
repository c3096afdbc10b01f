#include "support/failing_heap.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace TestSupport {
namespace {

thread_local FailingHeap* current = nullptr;

void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
  if (current && current->Fails()) throw std::bad_alloc();
  if (void* block = std::aligned_alloc(alignment, (size / alignment + 1) * alignment)) return block;
  throw std::bad_alloc();
}

}  // namespace

FailingHeap::FailingHeap(long from, Extent extent) : extent(extent), left(from) {
  current = this;
}

FailingHeap::~FailingHeap() {
  current = nullptr;
}

bool FailingHeap::Fails() {
  const bool fails = left == 0 || (left < 0 && extent == Extent::All);
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
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
// clang-format on
