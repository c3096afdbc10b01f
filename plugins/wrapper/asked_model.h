#pragma once

#include "hosting/hosted_stream.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Orvik::Tesmo::Plugin {

/// A model that somebody asked a plugin to play.
struct AskedModel {
  std::string file;    // its path; empty: none, the input plays on
  std::string status;  // for people, one line: the names of its classes, or why it is refused
  bool isRefused = false;
  Hosting::Description description;  // of a model that is there
  std::string licence;               // in its words, one line; empty: it does not say
  double hopSeconds = 0;
  std::unique_ptr<Hosting::HostedStream> stream;  // null where it is refused, or none
  AskedModel* next = nullptr;                     // of a list, for whoever holds the object
};

/// How a stream is to be made of a model.
struct StreamWish {
  double hostRateHz = 0;
  unsigned channelCount = 0;
  std::uint32_t usualBlockFrames = 0;  // 0: not known
  std::uint64_t sequenceSize = 0;      // 0: the model's own
  std::size_t classCount = 0;          // gains that the plugin has

  bool operator==(const StreamWish&) const = default;
};

/// Loads any model of the contract. A model that cannot be had comes back refused, with the reason
/// in `status`. Slow. Throws std::bad_alloc.
std::unique_ptr<AskedModel> LoadAnyModel(const std::string& file, const StreamWish& wish);

}  // namespace Orvik::Tesmo::Plugin
