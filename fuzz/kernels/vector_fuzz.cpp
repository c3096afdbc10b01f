// Every vector kernel of every build, at any length, alignment and permitted aliasing, against its
// formula.

#include "guarded_page.h"
#include "input.h"
#include "members.h"

#include <bit>
#include <cmath>
#include <complex>
#include <deque>
#include <random>
#include <type_traits>

namespace {

using Fuzz::Expect;
using Fuzz::Get;
using Fuzz::GuardedRoom;
using Fuzz::Input;
using Fuzz::Members;
using Fuzz::Place;
using Fuzz::Put;
using Floats = std::vector<float>;

constexpr int mostFloats = 6000;
constexpr std::size_t mostChannels = 20;

GuardedRoom& Room(std::size_t i) {
  static GuardedRoom rooms[3] = {GuardedRoom(4 * mostFloats), GuardedRoom(4 * mostFloats),
                                 GuardedRoom(4 * mostFloats)};
  return rooms[i];
}

/// Tame values, or any bits at all.
class Values {
public:
  explicit Values(Input& input) : wild(input.Flag()), bits(input.Number(0, 65535)) {}

  float One() {
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

bool Same(float a, float b) {
  return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

/// An entry with those of the arguments that it takes: two sources, a constant, the destination.
template <auto entry>
IppStatus Run(const Members& m, const float* a, const float* b, float factor, float* d, int n) {
  const auto run = m.*entry;
  if constexpr (std::is_invocable_v<decltype(run), const float*, const float*, float*, int>)
    return run(a, b, d, n);
  else if constexpr (std::is_invocable_v<decltype(run), const float*, float, float*, int>)
    return run(a, factor, d, n);
  else if constexpr (std::is_invocable_v<decltype(run), float, float*, int>)
    return run(factor, d, n);
  else if constexpr (std::is_invocable_v<decltype(run), const float*, float*, int>)
    return run(a, d, n);
  else
    return run(d, n);
}

float Scaled(float value, float factor) {
  if (factor == 0) return 0;
  return factor == 1 ? value : value * factor;
}

float AddProduct(float a, float, float factor, float d) {
  const volatile float product = a * factor;  // rounded of its own
  return d + product;
}

/// `run` has `sources` sources; `meaning` is what becomes of one element.
struct Kernel {
  const char* name;
  int sources;
  IppStatus (*run)(const Members&, const float* a, const float* b, float factor, float* d, int n);
  float (*meaning)(float a, float b, float factor, float d);
};
constexpr Kernel kernels[] = {
    {"Copy", 1, Run<&Members::ippsCopy_32f>, [](float a, float, float, float) { return a; }},
    {"Add", 2, Run<&Members::ippsAdd_32f>, [](float a, float b, float, float) { return a + b; }},
    {"Mul", 2, Run<&Members::ippsMul_32f>, [](float a, float b, float, float) { return a * b; }},
    {"Mul_I", 1, Run<&Members::ippsMul_32f_I>,
     [](float a, float, float, float d) { return d * a; }},
    {"MulC", 1, Run<&Members::ippsMulC_32f>,
     [](float a, float, float factor, float) { return Scaled(a, factor); }},
    {"MulC_I", 0, Run<&Members::ippsMulC_32f_I>,
     [](float, float, float factor, float d) { return Scaled(d, factor); }},
    {"AddProductC", 1, Run<&Members::ippsAddProductC_32f>, AddProduct},
    {"Zero", 0, Run<&Members::ippsZero_32f>, [](float, float, float, float) { return 0.0F; }},
};

void CheckElements(const Members& m, Input& input) {
  const Kernel& kernel = input.Pick(kernels);
  const int len = input.Byte() % 8 ? input.Int(-1, 200) : input.Int(-1, mostFloats - 32);
  const auto n = static_cast<std::size_t>(std::max(len, 0));
  constexpr float factors[] = {0.0F, 1.0F, -0.0F, 0.3F, -1.0F, 1e-40F, INFINITY, NAN};
  const float factor = input.Pick(factors);
  const std::uint8_t aliases = input.Byte();
  Values values(input);
  float* const dst = Place<float>(Room(2), input, n);
  float* const a = aliases & 1 ? dst : Place<float>(Room(0), input, n);
  float* const b = aliases & 2 ? dst : aliases & 4 ? a : Place<float>(Room(1), input, n);
  for (float* const place : {dst, a, b})
    Put(place, values.Some(n));
  const Floats x = Get(a, n), y = Get(b, n), z = Get(dst, n);
  if (aliases >= 0xF0) {  // one pointer is null
    const int which = aliases % (kernel.sources + 1);
    const IppStatus status = kernel.run(m, which == 1 ? nullptr : a, which == 2 ? nullptr : b,
                                        factor, which == 0 ? nullptr : dst, len);
    Expect(status == ippStsNullPtrErr, "%s %s: status %d for null", m.name, kernel.name, status);
  } else {
    const IppStatus status = kernel.run(m, a, b, factor, dst, len);
    Expect(status == (len < 1 ? ippStsSizeErr : ippStsNoErr), "%s %s: status %d at length %d",
           m.name, kernel.name, status, len);
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

void CheckRoot(const Members& m, Input& input) {
  const int len = input.Int(-1, 300);
  const auto n = static_cast<std::size_t>(std::max(len, 0));
  Values values(input);
  float* const place = Place<float>(Room(0), input, n);
  Floats x = values.Some(n);
  if (input.Flag())
    for (float& value : x)
      value = std::abs(value);
  Put(place, x);
  bool negative = false;
  for (const float value : x)
    negative = negative || value < 0;
  const IppStatus status = m.ippsSqrt_32f_I(place, len);
  Expect(status == (len < 1    ? ippStsSizeErr
                    : negative ? ippStsSqrtNegArg
                               : ippStsNoErr),
         "%s Sqrt: status %d", m.name, status);
  const Floats out = Get(place, n);
  for (std::size_t i = 0; i < n; ++i)
    Expect(Same(out[i], std::sqrt(x[i])), "%s Sqrt of %.9g: %.9g", m.name,
           static_cast<double>(x[i]), static_cast<double>(out[i]));
  Expect(Room(0).Intact(), "%s Sqrt wrote beside its array", m.name);
}

void CheckInterleaving(const Members& m, Input& input) {
  static std::deque<GuardedRoom> rooms;
  while (rooms.size() < mostChannels)
    rooms.emplace_back(4 * 300);
  const int channels = input.Int(0, static_cast<int>(mostChannels)), len = input.Int(-1, 290);
  const auto C = static_cast<std::size_t>(channels), n = static_cast<std::size_t>(std::max(len, 0));
  Values values(input);
  const Floats x = values.Some(C * n);
  float* const flat = Place<float>(Room(0), input, C * n);
  std::vector<float*> planar(C);
  for (std::size_t c = 0; c < C; ++c)
    planar[c] = Place<float>(rooms[c], input, n);
  const bool inward = input.Flag();
  Floats row(n);
  for (std::size_t c = 0; inward && c < C; ++c) {
    for (std::size_t i = 0; i < n; ++i)
      row[i] = x[i * C + c];
    Put(planar[c], row);
  }
  if (!inward) Put(flat, x);
  bool aligned = reinterpret_cast<std::uintptr_t>(flat) % 16 == 0;
  for (const float* channel : planar)
    aligned = aligned && reinterpret_cast<std::uintptr_t>(channel) % 16 == 0;
  const IppStatus wanted = channels < 1 ? ippStsNumChannelsErr
                           : len < 1    ? ippStsSizeErr
                           : aligned    ? ippStsNoErr
                                        : ippStsMisalignedBuf;
  float* none = nullptr;
  float** const pointers = channels < 1 ? &none : planar.data();
  const IppStatus status = inward ? m.ippsInterleave_32f(pointers, channels, len, flat)
                                  : m.ippsDeinterleave_32f(flat, channels, len, pointers);
  Expect(status == wanted, "%s interleaving: status %d, not %d", m.name, status, wanted);
  const Floats all = Get(flat, C * n);
  for (std::size_t c = 0; c < C; ++c) {
    const Floats channel = Get(planar[c], n);
    for (std::size_t i = 0; i < n; ++i)
      Expect(Same(channel[i], x[i * C + c]) && Same(all[i * C + c], x[i * C + c]),
             "%s interleaving %d channels, length %d: channel %zu, frame %zu", m.name, channels,
             len, c, i);
    Expect(rooms[c].Intact(), "%s interleaving wrote beside channel %zu", m.name, c);
  }
  Expect(Room(0).Intact(), "%s interleaving wrote beside its frames", m.name);
}

void CheckComplex(const Members& m, Input& input) {
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
  const auto as = [](Value* p) { return reinterpret_cast<Ipp32fc*>(p); };
  const IppStatus status = choice % 4 == 0   ? m.ippsMul_32fc(as(a), as(b), as(dst), len)
                           : choice % 4 == 1 ? m.ippsMul_32fc_I(as(a), as(dst), len)
                           : choice % 4 == 2 ? m.ippsConj_32fc(as(a), as(dst), len)
                                             : m.ippsZero_32fc(as(dst), len);
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const Members& m = Fuzz::MembersOf(input.Byte());
  switch (input.Byte() % 4) {
  case 0:
    CheckRoot(m, input);
    break;
  case 1:
    CheckInterleaving(m, input);
    break;
  case 2:
    CheckComplex(m, input);
    break;
  default:
    CheckElements(m, input);
  }
  return 0;
}
