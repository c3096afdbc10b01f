#pragma once

#include "kernels/ipps.h"

namespace Orvik::Tesmo::Kernels {

constexpr int variantCount = 6;

/// An entry's six code addresses, as a test reads them.
struct VariantRow {
  const char* name;
  const void* const* entry;
};
/// All rows; `count` is written.
const VariantRow* VariantRows(int& count);

}  // namespace Orvik::Tesmo::Kernels
