// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// What the entries of both families of transforms begin with.

#include "kernels/memory.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

template <class Spec>
IppStatus CheckTransform(const Spec* spec, std::int32_t id, const void* src, const void* dst) {
  if (!spec) return ippStsNullPtrErr;
  if (spec->id != id) return ippStsContextMatchErr;
  return src && dst ? ippStsNoErr : ippStsNullPtrErr;
}

/// The caller's work buffer, aligned, or one of our own for the time of a call.
class WorkBuffer {
public:
  WorkBuffer(std::int32_t size, Ipp8u* given, std::size_t alignment = tableAlignment) {
    if (size > 0 && !given) own = given = ippsMalloc(size);
    missing = size > 0 && !given;
    bytes = size > 0 ? AlignUp(given, alignment) : nullptr;
  }
  ~WorkBuffer() { ippsFree(own); }
  WorkBuffer(const WorkBuffer&) = delete;
  WorkBuffer& operator=(const WorkBuffer&) = delete;
  float* Floats() const { return reinterpret_cast<float*>(bytes); }

  Ipp8u* bytes;  ///< null where a plan needs none
  bool missing;  ///< there was no memory

private:
  Ipp8u* own = nullptr;
};

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
