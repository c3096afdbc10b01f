#pragma once

// Ready-made audio models in the library's convention: input 0 is audio, output 0 the classes,
// input and output i from 1 on one recurrent state. One record says what is wanted; every member
// has a default, and the default model passes samples through.

#include "support/model_builder.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

/// A recurrent state beside the audio.
struct StateOptions {
  enum class Update {
    Count,        ///< new = old + 1
    Keep,         ///< new = old, by a node
    PassThrough,  ///< no node: the output has the name of an input, `outputName`
  };

  Element element = Element::Float;  ///< of numbers
  Dimensions shape = {1};
  Update update = Update::Count;
  /// Adds the mean of the old values to every sample of the audio.
  bool isHeard = false;
  /// Empty: "newState" and the index, from 1. The input is called "state" and the index.
  std::string outputName = {};
};

struct AudioModelOptions {
  std::int64_t features = 8;            ///< W; in rank 4 the number of bins
  std::int64_t lookahead = 0;           ///< L: the last L windows do not come out
  std::vector<float> classGains = {1};  ///< class k is gain k times the audio
  std::size_t inputRank = 3;            ///< 1 to 4: [W], [S+L, W], [C, S+L, W], [C, S+L, F, 2]
  std::size_t outputRank = 4;           ///< 1 to 5: [W] ... [K, C, S, W], [K, C, S, F, 2]
  std::int64_t outputFeatures = 0;      ///< other than 0: output feature i is input i modulo W
  std::optional<Dimensions> inputShape = {};  ///< declared in place of the free one
  std::optional<Dimensions> outputShape = {};
  std::string inputName = "input";
  std::vector<StateOptions> states = {};
  std::vector<std::pair<std::string, std::string>> metadata = {};
  /// Adds a counting state with which evaluation number n (from 0) and all later ones fail.
  std::optional<std::int64_t> failsFromEvaluation = {};
  /// The evaluation fails while the greatest sample of the input is 1 or above (or -2 or below).
  bool failsOnLevel = false;
  bool failsAtOneWindow = false;
};

/// The model's bytes. An output rank that has no room for a dimension needs that dimension to be 1
/// (or, for components, takes the first). Spectra come by inputRank 4, outputRank 5.
std::string MakeAudioModel(const AudioModelOptions& options = {});

/// The bytes of one of the repository's models; the test depends on the target `models`.
std::string RecipeModel(const std::string& name);

}  // namespace TestSupport
