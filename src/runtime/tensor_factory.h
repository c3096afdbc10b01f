#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo::Dnn {

/// The product of the dimensions, 1 for a scalar. Throws std::bad_alloc where it is above MaxFloats
/// or a dimension is negative.
std::uint64_t ElementCount(const Platform::Shape& shape);

/// A tensor of a concrete shape, all zeros (strings empty). `kind` is any number that a model may
/// declare. Throws WinML::CException for a kind that no tensor is made of, as ElementCount, and the
/// platform's failures.
std::shared_ptr<Platform::Tensor> CreateTensor(Platform::Runtime& runtime, std::uint32_t kind,
                                               const Platform::Shape& shape);

std::shared_ptr<Platform::Tensor> CreateFloatTensor(Platform::Runtime& runtime,
                                                    const Platform::Shape& shape);

}  // namespace Orvik::Tesmo::Dnn
