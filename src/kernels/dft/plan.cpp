#include "kernels/dft/plan.h"

#include <algorithm>
#include <utility>

namespace Orvik::Tesmo::Kernels {

namespace {

struct Factors {
  std::array<int, StageLimit> radix{};
  int count = 0;

  void Append(int factor) { radix[static_cast<std::size_t>(count++)] = factor; }

  /// A 3 behind a leading 2 joins it to a 6, unless a 4 stands there to make an 8.
  void AppendOdd(int factor) {
    Append(factor);
    if (factor == 3 && radix[0] == 2 && radix[1] != 4) {
      radix[0] = 6;
      --count;
    }
  }
};

/// False when a factor is left that is too large for a butterfly.
bool Factor(int points, Factors& factors) {
  int rest = points;
  for (; rest % 4 == 0; rest /= 4)
    factors.Append(4);
  if (rest % 2 == 0) {
    factors.Append(4);
    factors.radix[0] = 2;
    rest /= 2;
  }
  if (rest >= 9) {
    for (int d = 3; rest >= d * d;) {
      if (rest % d == 0) {
        rest /= d;
        factors.AppendOdd(d);
      } else if ((d += 2) > FactorLimit) {
        return false;
      }
    }
  }
  if (factors.count == 0 || rest > (points % 4 == 0 ? FactorLimitBy4 : FactorLimit)) return false;
  factors.AppendOdd(rest);
  return true;
}

/// Joins a leading 4 into the first radix and moves a small even first radix to the end, where the
/// bottom kernels for it stand.
void MergeAndMove(Factors& factors) {
  auto& radix = factors.radix;
  const auto last = static_cast<std::size_t>(factors.count) - 1;
  if (radix[0] == 6 && radix[1] == 4) {
    std::swap(radix[0], radix[last]);
    return;
  }
  if (factors.count > 1 && radix[1] == 4) {
    radix[0] *= 4;
    std::copy(radix.begin() + 2, radix.end(), radix.begin() + 1);
    --factors.count;
  }
  if (radix[0] == 2 || radix[0] == 4 || radix[0] == 6 || radix[0] == 8 || radix[0] == 16)
    std::swap(radix[0], radix[static_cast<std::size_t>(factors.count) - 1]);
}

void BuildStages(const Factors& factors, DftPlan& plan) {
  plan.stageCount = factors.count;
  int remaining = plan.points;
  int stride = 1;
  int count = 1;
  for (int i = 0; i < factors.count; ++i) {
    const int radix = factors.radix[static_cast<std::size_t>(i)];
    const int block = remaining;
    remaining /= radix;
    plan.stages[static_cast<std::size_t>(i)] = {radix, remaining, stride, count};
    stride *= radix;
    const bool bottomNext = i + 2 >= factors.count;
    count = block > BlockLimit && !bottomNext ? 1 : count * radix;
  }
}

}  // namespace

DftPlan PlanDft(int length, DftKind kind) {
  DftPlan plan{};
  plan.length = length;
  plan.points = kind == DftKind::Real && length % 2 == 0 ? length / 2 : length;
  if (length <= DirectKernelLimit) {
    plan.method = DftMethod::DirectKernel;
    return plan;
  }
  if (IsPowerOfTwo(length)) {
    plan.method = DftMethod::Fft;
    return plan;
  }
  if (plan.points <= DirectKernelLimit) {
    plan.method = DftMethod::DirectKernel;
    return plan;
  }
  Factors factors;
  if (Factor(plan.points, factors)) {
    plan.method = DftMethod::MixedRadix;
    MergeAndMove(factors);
    BuildStages(factors, plan);
  } else if (plan.points <= DirectSumLimit) {
    plan.method = DftMethod::DirectSum;
  } else {
    plan.method = DftMethod::Convolution;
    plan.convLength = ConvolutionLength(plan.points);
  }
  return plan;
}

int ConvolutionLength(int points) {
  const int wanted = 2 * points - 1;
  const auto entry = std::lower_bound(ConvolutionLengths.begin(), ConvolutionLengths.end(), wanted);
  if (entry != ConvolutionLengths.end()) return *entry;
  int length = ConvolutionLengths.back();
  while (length < wanted)
    length *= 2;
  return length;
}

std::int64_t OwnWorkSize(const DftPlan& plan, DftKind kind) {
  const std::int64_t points = plan.points;
  if (plan.method == DftMethod::DirectSum)
    return (kind == DftKind::Real && plan.length % 2 == 1 ? points * 4 : points * 8) + 32;
  if (plan.method != DftMethod::MixedRadix) return 0;
  int scratch = 0;
  for (int i = 0; i < plan.stageCount; ++i) {
    const auto& stage = plan.stages[static_cast<std::size_t>(i)];
    if (stage.radix <= 13 || stage.radix % 2 == 0) continue;
    const bool grouped = i < plan.stageCount - 1 && stage.remaining % 4 == 0;
    scratch = std::max(scratch, grouped ? 4 * stage.radix : stage.radix);
  }
  return (points + scratch) * 8 + 64;
}

int LastRunStart(const DftPlan& plan) {
  int start = plan.stageCount - 2;
  while (plan.stages[static_cast<std::size_t>(start)].count > 1)
    --start;
  return start;
}

void FillDigitOrder(const DftPlan& plan, int* offsets) {
  offsets[0] = 0;
  int filled = 1;
  int stride = 1;
  // each stage splits every block into radix blocks, whose inputs start one stride apart
  for (int i = LastRunStart(plan); i < plan.stageCount - 2; ++i) {
    const int radix = plan.stages[static_cast<std::size_t>(i)].radix;
    for (int block = filled - 1; block >= 0; --block)
      for (int digit = radix - 1; digit >= 0; --digit)
        offsets[block * radix + digit] = offsets[block] + digit * stride;
    filled *= radix;
    stride *= radix;
  }
}

}  // namespace Orvik::Tesmo::Kernels
