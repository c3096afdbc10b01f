#pragma once

// What the kernels ask of the processor that they run on. Each architecture answers in a folder of
// its own, which also says what CpuFeatures and ControlRegister are.

#if defined(__x86_64__)
#include "kernels/x86_64/cpu.h"
#elif defined(__aarch64__)
#include "kernels/arm64/cpu.h"
#else
#error "The kernels are written for x86-64 and ARM64."
#endif

#include <cstdint>

namespace Orvik::Tesmo::Kernels {

CpuFeatures FeaturesOfThis();

/// The index of the best build that a processor with these features runs.
std::int32_t BestVariant(const CpuFeatures& features);

/// About 1 / sqrt(x), to 11 bits or more.
float EstimateReciprocalRoot(float x);

}  // namespace Orvik::Tesmo::Kernels
