#pragma once

// Any vector kernel of a build, at any length, alignment and permitted aliasing, against its
// formula.

#include "kernels/guarded_room.h"
#include "kernels/members.h"
#include "kernels/vector_table.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <deque>
#include <random>

namespace KernelTest {

using Floats = std::vector<float>;

inline constexpr int mostFloats = 6000;
inline constexpr std::size_t mostChannels = 20;

inline GuardedRoom& Room(std::size_t i) {
  static GuardedRoom rooms[3];
  return rooms[i];
}

/// Tame values, or any bits at all.
class Values {
public:
  explicit Values(Input& input) : wild(input.Flag()), bits(input.Number(0, 65535)) {}

  float One() {
    constexpr float specials[] = {0.0F, -0.0F, INFINITY, -INFINITY, NAN, 1e-40F, -1e-40F, 1.0F};
    if (wild && bits() % 8 == 0) return specials[bits() % std::size(specials)];
    if (wild) return std::bit_cast<float>(static_cast<std::uint32_t>(bits()));
    return std::uniform_real_distribution<float>(-4.0F, 4.0F)(bits);
  }
  Floats Some(std::size_t count) {
    Floats values(count);
    for (float& value : values)
      value = One();
    return values;
  }
  const bool wild;

private:
  std::mt19937 bits;
};

inline bool SameBits(const Floats& a, const Floats& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

inline void CheckElements(const Members& m, const Kernel& kernel, Input& input) {
  const std::uint8_t magnitude = input.Byte();
  const int len = input.Int(-1, magnitude % 8 == 0 ? mostFloats : magnitude % 2 ? 40 : 200);
  const auto n = static_cast<std::size_t>(std::max(len, 0));
  constexpr float factors[] = {0.0F, 1.0F, -0.0F, 0.3F, -1.0F, 1e-40F, INFINITY, NAN};
  const float factor = input.Pick(factors);
  const std::uint8_t aliases = input.Byte();
  Values values(input);
  float* const dst = Place<float>(Room(2), input, n);
  float* const a = aliases & 1 ? dst : Place<float>(Room(0), input, n);
  float* const b = aliases & 2 ? dst : aliases & 4 ? a : Place<float>(Room(1), input, n);
  for (float* const place : {dst, a, b}) {
    Floats some = values.Some(n);
    if (aliases & 8)
      std::ranges::transform(some, some.begin(), [](float v) { return std::abs(v); });
    Put(place, some);
  }
  const Floats x = Get(a, n), y = Get(b, n), z = Get(dst, n);
  if (aliases >= 0xF0) {  // one pointer is null
    const int which = aliases % (kernel.sources + 1);
    const IppStatus status = kernel.run(m, which == 1 ? nullptr : a, which == 2 ? nullptr : b,
                                        factor, which == 0 ? nullptr : dst, len);
    Expect(status == ippStsNullPtrErr, "%s %s: status %d for null", m.name, kernel.name, status);
    Expect(SameBits(Get(dst, n), z), "%s %s wrote what it refused", m.name, kernel.name);
  } else {
    const bool warns = kernel.isRoot && std::ranges::any_of(z, [](float v) { return v < 0; });
    const IppStatus wantedStatus = len < 1 ? ippStsSizeErr : warns ? ippStsSqrtNegArg : ippStsNoErr;
    // the mode stays; a root raises neither invalid nor division by zero
    using Register = Orvik::Tesmo::Kernels::ControlRegister;
    const Register::Bits never = kernel.isRoot ? Register::invalid | Register::divisionByZero : 0,
                         mayBeRaised = Register::raised & ~never,
                         mode = Register::Read() & ~Register::raised;
    Register::Write(mode);
    const IppStatus status = kernel.run(m, a, b, factor, dst, len);
    Expect((Register::Read() | mayBeRaised) == (mode | mayBeRaised), "%s %s: control register",
           m.name, kernel.name);
    Expect(status == wantedStatus, "%s %s: status %d at length %d", m.name, kernel.name, status,
           len);
    const Floats out = Get(dst, n);
    for (std::size_t i = 0; i < n; ++i) {
      const float wanted = kernel.meaning(x[i], y[i], factor, z[i]);
      Expect(Same(out[i], wanted), "%s %s, length %d, element %zu: %.9g, not %.9g", m.name,
             kernel.name, len, i, static_cast<double>(out[i]), static_cast<double>(wanted));
    }
  }
  for (std::size_t i = 0; i < 3; ++i)
    Expect((i == 0 && (aliases & 1)) || (i == 1 && (aliases & 6)) || Room(i).Intact(),
           "%s %s wrote beside its array", m.name, kernel.name);
}

inline void CheckInterleaving(const Members& m, Input& input) {
  static std::deque<GuardedRoom> rooms;
  while (rooms.size() < mostChannels)
    rooms.emplace_back();
  const int channels = input.Int(0, static_cast<int>(mostChannels)), len = input.Int(-1, 290);
  const auto C = static_cast<std::size_t>(channels), n = static_cast<std::size_t>(std::max(len, 0));
  Values values(input);
  const Floats x = values.Some(C * n);
  float* const flat = Place<float>(Room(0), input, C * n);
  std::vector<float*> planar(C);
  for (std::size_t c = 0; c < C; ++c)
    planar[c] = Place<float>(rooms[c], input, n);
  const bool inward = input.Flag();
  const auto channelOfX = [&](std::size_t c) {
    Floats channel(n);
    for (std::size_t i = 0; i < n; ++i)
      channel[i] = x[i * C + c];
    return channel;
  };
  for (std::size_t c = 0; inward && c < C; ++c)
    Put(planar[c], channelOfX(c));
  if (!inward) Put(flat, x);
  bool aligned = reinterpret_cast<std::uintptr_t>(flat) % 16 == 0;
  for (const float* channel : planar)
    aligned = aligned && reinterpret_cast<std::uintptr_t>(channel) % 16 == 0;
  const auto run = [&](auto* frames, auto* const* pointers) {
    return inward ? m.ippsInterleave_32f(pointers, channels, len, frames)
                  : m.ippsDeinterleave_32f(frames, channels, len, pointers);
  };
  float* const none[] = {nullptr};
  float* const* const pointers = channels < 1 ? none : planar.data();
  Expect(run(static_cast<float*>(nullptr), pointers) == ippStsNullPtrErr &&
             run(flat, static_cast<float* const*>(nullptr)) == ippStsNullPtrErr,
         "%s interleaving of null", m.name);
  if (C > 0 && n > 0) {
    std::vector<float*> broken = planar;
    broken[input.Number(0, C - 1)] = nullptr;
    const Floats before = Get(flat, C * n);
    Expect(run(flat, broken.data()) == ippStsNullPtrErr, "%s interleaving without a channel",
           m.name);
    Expect(SameBits(Get(flat, C * n), before), "%s interleaving wrote what it refused", m.name);
  }
  const IppStatus wanted = channels < 1 ? ippStsNumChannelsErr
                           : len < 1    ? ippStsSizeErr
                           : aligned    ? ippStsNoErr
                                        : ippStsMisalignedBuf;
  const IppStatus status = run(flat, pointers);
  Expect(status == wanted, "%s interleaving: status %d, not %d", m.name, status, wanted);
  Expect(SameBits(Get(flat, C * n), x), "%s interleaving %d channels, length %d", m.name, channels,
         len);
  for (std::size_t c = 0; c < C; ++c) {
    Expect(SameBits(Get(planar[c], n), channelOfX(c)),
           "%s interleaving %d channels, length %d: channel %zu", m.name, channels, len, c);
    Expect(rooms[c].Intact(), "%s interleaving wrote beside channel %zu", m.name, c);
  }
  Expect(Room(0).Intact(), "%s interleaving wrote beside its frames", m.name);
}

inline void CheckComplex(const Members& m, Input& input) {
  const int len = input.Int(-1, 120);
  const auto n = static_cast<std::size_t>(std::max(len, 0));
  const std::uint8_t choice = input.Byte();
  std::mt19937 bits(input.Byte());
  std::uniform_real_distribution<float> tame(-4.0F, 4.0F);
  using Value = std::complex<float>;
  std::vector<Value> x(n), y(n);
  for (std::size_t i = 0; i < n; ++i)
    x[i] = {tame(bits), tame(bits)}, y[i] = {tame(bits), tame(bits)};
  auto* const a = Place<Value>(Room(0), input, n);
  auto* const dst = choice & 4 ? a : Place<Value>(Room(1), input, n);
  auto* const b = choice & 8 ? dst : Place<Value>(Room(2), input, n);
  Put(b, y);
  Put(a, x);
  const std::vector<Value> before = Get(dst, n), left = Get(a, n), right = Get(b, n);
  const auto run = [&](Value* first, Value* second, Value* to) {
    const auto as = [](Value* p) { return reinterpret_cast<Ipp32fc*>(p); };
    return choice % 4 == 0   ? m.ippsMul_32fc(as(first), as(second), as(to), len)
           : choice % 4 == 1 ? m.ippsMul_32fc_I(as(first), as(to), len)
           : choice % 4 == 2 ? m.ippsConj_32fc(as(first), as(to), len)
                             : m.ippsZero_32fc(as(to), len);
  };
  Expect(run(a, b, nullptr) == ippStsNullPtrErr, "%s complex %d to null", m.name, choice % 4);
  if (choice % 4 < 3)
    Expect(run(nullptr, b, dst) == ippStsNullPtrErr, "%s complex %d of null", m.name, choice % 4);
  if (choice % 4 == 0)
    Expect(run(a, nullptr, dst) == ippStsNullPtrErr, "%s complex %d of null", m.name, choice % 4);
  const IppStatus status = run(a, b, dst);
  Expect(status == (len < 1 ? ippStsSizeErr : ippStsNoErr), "%s complex: status %d", m.name,
         status);
  const std::vector<Value> out = Get(dst, n);
  for (std::size_t i = 0; i < n; ++i) {
    const Value wanted = choice % 4 == 0   ? left[i] * right[i]
                         : choice % 4 == 1 ? before[i] * left[i]
                         : choice % 4 == 2 ? std::conj(left[i])
                                           : Value();
    Expect(std::abs(out[i] - wanted) <= (choice % 4 < 2 ? 1e-5F : 0.0F), "%s complex %d, value %zu",
           m.name, choice % 4, i);
  }
  Expect(Room(0).Intact(), "%s complex wrote beside its array", m.name);
  if (!(choice & 4)) Expect(Room(1).Intact(), "%s complex wrote beside its array", m.name);
}

}  // namespace KernelTest
