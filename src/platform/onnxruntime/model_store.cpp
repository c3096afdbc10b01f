#include "platform/onnxruntime/model_store.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

constexpr std::uint64_t prime = (std::uint64_t{1} << 61) - 1;
constexpr std::size_t wordBytes = 7;  // so that each word is below the prime

/// sum * point + word, modulo the prime. Results may be above it, but stay below 2^61 + 8.
std::uint64_t Next(std::uint64_t sum, std::uint64_t point, std::uint64_t word) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(sum) * point + word;
  const std::uint64_t folded =
      (static_cast<std::uint64_t>(product) & prime) + static_cast<std::uint64_t>(product >> 61);
  return (folded & prime) + (folded >> 61);
}

}  // namespace

/// A polynomial over the words, at a point that nobody knows: two models that differ have the same
/// value with a probability of their length over 2^61, whoever made them. Four of them, each over
/// every fourth word, because one alone would wait for its own product.
ModelStore::Fingerprint ModelStore::FingerprintOf(const void* bytes, std::size_t size) {
  static const auto points = [] {
    std::random_device device;
    std::uniform_int_distribution<std::uint64_t> distribution(0, prime - 1);
    std::array<std::uint64_t, 4> random;
    std::ranges::generate(random, [&] { return distribution(device); });
    return random;
  }();
  Fingerprint result{size, {}};
  auto& sums = result.second;
  const char* const start = static_cast<const char*>(bytes);
  for (std::size_t offset = 0; offset < size;) {
    for (std::size_t lane = 0; lane < points.size(); ++lane, offset += wordBytes) {
      std::uint64_t word = 0;
      if (size - std::min(size, offset) >= wordBytes)
        std::memcpy(&word, start + offset, wordBytes);
      else if (offset < size)
        std::memcpy(&word, start + offset, size - offset);
      sums[lane] = Next(sums[lane], points[lane], word);
    }
  }
  for (std::uint64_t& sum : sums)
    sum %= prime;
  return result;
}

std::shared_ptr<ModelStore::Entry> ModelStore::EntryFor(const Fingerprint& fingerprint) {
  const std::lock_guard guard(lock);
  // an entry that only the map knows is in no other hands, and comes into none without the lock
  std::erase_if(entries, [](const auto& pair) {
    return pair.second.use_count() == 1 && pair.second->model.expired();
  });
  std::shared_ptr<Entry>& entry = entries[fingerprint];
  if (!entry) entry = std::make_shared<Entry>();
  return entry;
}

std::shared_ptr<const ParsedModel> ModelStore::Load(const std::shared_ptr<const Engine>& engine,
                                                    const void* bytes, std::size_t size) {
  const std::shared_ptr<Entry> entry = EntryFor(FingerprintOf(bytes, size));
  const std::lock_guard loading(entry->loading);
  {
    const std::lock_guard guard(lock);
    if (auto model = entry->model.lock()) return model;
  }
  auto model = std::make_shared<const ParsedModel>(engine, bytes, size);
  const std::lock_guard guard(lock);
  entry->model = model;
  return model;
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
