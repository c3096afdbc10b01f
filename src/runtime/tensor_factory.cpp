#include "runtime/tensor_factory.h"

#include "failure/exceptions.h"
#include "runtime/float_array.h"

namespace Orvik::Tesmo::Dnn {

std::uint64_t ElementCount(const Platform::Shape& shape) {
  const auto count = ProductUpTo(MaxFloats, shape);
  if (!count) throw std::bad_alloc();
  return *count;
}

std::shared_ptr<Platform::Tensor> CreateTensor(Platform::Runtime& runtime, std::uint32_t kind,
                                               const Platform::Shape& shape) {
  namespace TensorKind = Platform::TensorKind;
  if (kind == TensorKind::Undefined || kind > TensorKind::Complex128)
    throw WinML::CException(RefusalReason::StateKindIsInvalid);
  if (kind == TensorKind::Complex64 || kind == TensorKind::Complex128)
    throw WinML::CException(RefusalReason::StateKindIsUnsupported);
  ElementCount(shape);
  std::shared_ptr<Platform::Tensor> tensor;
  CheckResult(runtime.CreateTensor(kind, shape, tensor));
  return tensor;
}

std::shared_ptr<Platform::Tensor> CreateFloatTensor(Platform::Runtime& runtime,
                                                    const Platform::Shape& shape) {
  return CreateTensor(runtime, Platform::TensorKind::Float, shape);
}

}  // namespace Orvik::Tesmo::Dnn
