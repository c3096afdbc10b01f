#include "kernels/memory.h"

#include <cstdlib>
#include <cstring>

namespace {
// Room for the raw address in front of the block, and for the way to the next boundary.
constexpr std::size_t kept = sizeof(void*);
constexpr std::size_t extra = kept + Orvik::Tesmo::Kernels::tableAlignment;
}  // namespace

extern "C" Ipp8u* ippsMalloc(std::int32_t length) {
  if (length < 1) return nullptr;
  void* raw = std::malloc(static_cast<std::size_t>(length) + extra);
  if (!raw) return nullptr;
  Ipp8u* block = Orvik::Tesmo::Kernels::AlignUp(static_cast<Ipp8u*>(raw) + kept);
  std::memcpy(block - kept, &raw, kept);
  return block;
}

extern "C" void ippsFree(void* block) {
  if (!block) return;
  void* raw;
  std::memcpy(&raw, static_cast<Ipp8u*>(block) - kept, kept);
  std::free(raw);
}
