#include "kernels/roots.h"

#include <array>
#include <cmath>

namespace Orvik::Tesmo::Kernels {
namespace {

constexpr int sharedN = 1024;
constexpr std::array<float, RootTable::Floats(sharedN)> sharedRoots = [] {
  std::array<float, RootTable::Floats(sharedN)> roots{};
  for (int k = 0; k <= sharedN / 8; ++k) {
    roots[2 * k] = static_cast<float>(CosTurn(k, sharedN));
    roots[2 * k + 1] = static_cast<float>(-SinTurn(k, sharedN));
  }
  return roots;
}();

}  // namespace

RootTable::RootTable() : kept(sharedRoots.data()), N(sharedN) {}

RootTable::RootTable(float* memory, std::int64_t N) : kept(memory), N(N) {
  for (std::int64_t k = 0; 2 * k < Floats(N); ++k) {
    const double angle = twoPi * static_cast<double>(k) / static_cast<double>(N);
    memory[2 * k] = static_cast<float>(std::cos(angle));
    memory[2 * k + 1] = static_cast<float>(-std::sin(angle));
  }
}

Ipp32fc RootTable::At(std::int64_t num, std::int64_t den) const {
  std::int64_t k = num % den * (N / den);
  const bool isInLastHalf = 2 * k > N;
  if (isInLastHalf) k = N - k;
  const bool isInSecondQuarter = N % 2 == 0 && 4 * k > N;
  if (isInSecondQuarter) k = N / 2 - k;
  const bool isInSecondEighth = N % 4 == 0 && 8 * k > N;
  if (isInSecondEighth) k = N / 4 - k;
  Ipp32fc root = {kept[2 * k], kept[2 * k + 1]};
  if (isInSecondEighth) root = {-root.im, -root.re};
  if (isInSecondQuarter) root.re = -root.re;
  if (isInLastHalf) root.im = -root.im;
  return root;
}

}  // namespace Orvik::Tesmo::Kernels
