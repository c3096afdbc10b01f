#pragma once

// Replaces operator new of the program that includes this, in one file only.

#include <cstddef>
#include <cstdlib>
#include <new>

namespace TestSupport {

/// While one lives, the allocations of this thread from number `from` on (counted from 0) fail:
/// one of them, or all.
class FailingHeap {
public:
  enum class Extent { One, All };

  FailingHeap(long from, Extent extent) : extent(extent), left(from) { current = this; }
  ~FailingHeap() { current = nullptr; }
  FailingHeap(const FailingHeap&) = delete;
  FailingHeap& operator=(const FailingHeap&) = delete;

  bool HasFailed() const { return hasFailed; }

  static void* Allocate(std::size_t size, std::size_t alignment) {
    if (current && current->Fails()) throw std::bad_alloc();
    const std::size_t whole = (size + alignment - 1) / alignment * alignment;
    void* const block = alignment > alignof(std::max_align_t) ? std::aligned_alloc(alignment, whole)
                                                              : std::malloc(size ? size : 1);
    if (!block) throw std::bad_alloc();
    return block;
  }

private:
  bool Fails() {
    const bool fails = left == 0 || (left < 0 && extent == Extent::All);
    --left;
    hasFailed = hasFailed || fails;
    return fails;
  }

  static inline thread_local FailingHeap* current = nullptr;
  Extent extent;
  long left;
  bool hasFailed = false;
};

}  // namespace TestSupport

void* operator new(std::size_t size) {
  return TestSupport::FailingHeap::Allocate(size, 1);
}
void* operator new[](std::size_t size) {
  return TestSupport::FailingHeap::Allocate(size, 1);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return TestSupport::FailingHeap::Allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return TestSupport::FailingHeap::Allocate(size, static_cast<std::size_t>(alignment));
}
// clang-format off
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept { std::free(block); }
// clang-format on
