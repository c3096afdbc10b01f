#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo::Dnn {

/// A tensor of a concrete shape, all zeros (strings empty). `kind` is any number that a model may
/// declare. Throws WinML::CException for a kind that no tensor is made of, std::bad_alloc where the
/// shape is negative or beyond MaxElements, and the platform's failures.
std::shared_ptr<Platform::Tensor> CreateTensor(Platform::Runtime& runtime, std::uint32_t kind,
                                               const Platform::Shape& shape);

std::shared_ptr<Platform::Tensor> CreateFloatTensor(Platform::Runtime& runtime,
                                                    const Platform::Shape& shape);

}  // namespace Orvik::Tesmo::Dnn
