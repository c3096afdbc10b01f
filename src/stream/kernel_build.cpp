#include "stream/kernel_build.h"

#include "kernels/ipps.h"

namespace Orvik::Tesmo {

void SelectKernelBuild() {
  static const std::int32_t selected = ippVariantIndex = ippBestVariantIndex();
  static_cast<void>(selected);
}

}  // namespace Orvik::Tesmo
