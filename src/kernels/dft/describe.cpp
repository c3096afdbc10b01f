#include "kernels/dft/describe.h"

#include "kernels/build.h"
#include "kernels/dft/plan.h"
#include "kernels/fft/plan.h"
#include "kernels/ipps.h"

#include <bit>
#include <limits>

namespace Orvik::Tesmo::Kernels {

namespace {

int OrderOf(int powerOfTwo) {
  return std::countr_zero(static_cast<unsigned>(powerOfTwo));
}

std::vector<int> ToVector(const RadixList& list) {
  return {list.radix, list.radix + list.count};
}

std::vector<std::vector<int>> FftRuns(const FftLayout& layout, int vecWidth) {
  if (layout.pieceOrder == 0) return {};
  std::vector<std::vector<int>> runs = {ToVector(StageRadices(layout.pieceOrder, vecWidth))};
  for (int level = layout.levels - 1, order = layout.pieceOrder; level >= 0; --level) {
    runs.push_back(ToVector(LevelRadices(layout.levelOrder[level] - order)));
    order = layout.levelOrder[level];
  }
  return runs;
}

const char* FftMethod(Method method) {
  switch (method) {
  case Method::DirectReal:
    return "direct kernel";
  case Method::DirectComplex:
    return "direct kernel of half the length";
  case Method::Flat:
    return "FFT, one buffer";
  case Method::Reversed:
    return "FFT, bit reversal first";
  case Method::Large:
    break;
  }
  return "FFT in pieces";
}

std::vector<std::vector<int>> RunsOf(const DftPlan& plan) {
  std::vector<std::vector<int>> runs(1);
  for (int i = plan.stageCount - 1; i >= 0; --i) {
    const DftStage& stage = plan.stages[static_cast<std::size_t>(i)];
    runs.back().push_back(stage.radix);
    if (stage.count == 1 && i > 0) runs.emplace_back();
  }
  return runs;
}

}  // namespace

std::optional<TransformDescription> DescribeTransform(int length) {
  if (length < 1 || (!IsPowerOfTwo(length) && length >= LengthLimit) || length > 1 << maxOrder)
    return {};
  const Build& build = CurrentBuild();
  const Limits& limits = build.limits;
  if (IsPowerOfTwo(length)) {
    const FftLayout layout = LayoutOf(limits, OrderOf(length), true);
    return TransformDescription{build.name,
                                length,
                                FftMethod(layout.method),
                                length > 1 ? length / 2 : 1,
                                FftRuns(layout, limits.vecWidth),
                                0,
                                layout.workSize};
  }
  const DftPlan plan = PlanDft(length, DftKind::Real);
  std::int64_t workSize = OwnWorkSize(plan, DftKind::Real);
  TransformDescription description{build.name, length, "", plan.points, {}, plan.convLength, 0};
  switch (plan.method) {
  case DftMethod::DirectKernel:
    description.method =
        length <= DirectKernelLimit ? "direct kernel" : "direct kernel of half the length";
    break;
  case DftMethod::DirectSum:
    description.method = "direct sum";
    break;
  case DftMethod::Fft:
    break;
  case DftMethod::MixedRadix:
    description.method = length % 2 == 1 ? "mixed radix, real" : "mixed radix";
    description.runs = RunsOf(plan);
    break;
  case DftMethod::Convolution: {
    if (plan.points >= ConvolutionPointLimit) return {};
    description.method = "chirp convolution";
    const DftPlan inner = PlanDft(plan.convLength, DftKind::Complex);
    workSize = static_cast<std::int64_t>(plan.convLength) * 8 + 32;
    if (inner.method == DftMethod::Fft) {
      const FftLayout layout = LayoutOf(limits, OrderOf(plan.convLength) + 1, false);
      description.runs = FftRuns(layout, limits.vecWidth);
      workSize += layout.workSize;
    } else {
      description.runs = RunsOf(inner);
      workSize += OwnWorkSize(inner, DftKind::Complex);
    }
    break;
  }
  }
  if (workSize > std::numeric_limits<int>::max()) return {};
  description.workSize = static_cast<int>(workSize);
  return description;
}

}  // namespace Orvik::Tesmo::Kernels
