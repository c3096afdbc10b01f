// Which tensors of each part carry audio, how, and which are states; and the sizes around the
// parts.

#include "adapt/adapt.h"
#include "command_line/errors.h"
#include "diagnosis/report.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <set>

namespace Orvik::Tesmo::Tool {
namespace {

// ---- Layouts ------------------------------------------------------------------------------------

constexpr char undecided = '?';

std::string Lower(std::string text) {
  for (char& letter : text)
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  return text;
}

bool NamesTime(const SourceDimension& dimension) {
  static constexpr std::array names = {"t",     "time",     "frames",  "frame",
                                       "seq",   "sequence", "length",  "seq_len",
                                       "steps", "windows",  "n_frames"};
  return std::ranges::find(names, Lower(dimension.symbol)) != names.end();
}

bool NamesBatch(const SourceDimension& dimension) {
  static constexpr std::array names = {"b", "n", "batch", "batch_size", "channels", "channel"};
  return std::ranges::find(names, Lower(dimension.symbol)) != names.end();
}

/// Of the free dimensions that are undecided: first the batch, then time, unless a name or, where
/// there is only one, its place says otherwise.
bool DecideFree(Layout& layout, const std::vector<SourceDimension>& shape) {
  std::vector<std::size_t> free;
  for (std::size_t i = 0; i < shape.size(); ++i)
    if (layout[i] == undecided && shape[i].size == 0) free.push_back(i);
  if (free.size() > 2) return false;
  if (free.size() == 2) {
    const bool swapped = NamesTime(shape[free[0]]) || NamesBatch(shape[free[1]]);
    layout[free[0]] = swapped ? 'T' : 'N';
    layout[free[1]] = swapped ? 'N' : 'T';
  } else if (free.size() == 1) {
    layout[free[0]] = IsTime(shape, free[0]) ? 'T' : 'N';
  }
  return true;
}

/// What is left has the size 1.
std::optional<Layout> Settle(Layout layout, const std::vector<SourceDimension>& shape) {
  if (!DecideFree(layout, shape)) return {};
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (layout[i] != undecided) continue;
    if (shape[i].size != 1) return {};
    layout[i] = '1';
  }
  return layout;
}

std::vector<std::size_t> AxesOf(const SourceTensor& tensor, auto accept) {
  std::vector<std::size_t> axes;
  for (std::size_t i = 0; i < tensor.shape.size(); ++i)
    if (accept(tensor.shape[i].size)) axes.push_back(i);
  return axes;
}

bool IsAudio(const SourceTensor& tensor) {
  return tensor.kind == Platform::TensorKind::Float && tensor.hasShape;
}

/// Dimensions of `size`, or the last free one where there is none; `size` 0 is any above 2.
std::vector<std::size_t> ValueAxes(const SourceTensor& tensor, std::int64_t size) {
  auto axes = AxesOf(tensor, [=](std::int64_t own) { return size > 0 ? own == size : own > 2; });
  if (!axes.empty() || size == 0) return axes;
  axes = AxesOf(tensor, [](std::int64_t own) { return own == 0; });
  if (axes.size() > 1) axes.erase(axes.begin(), axes.end() - 1);
  return axes;
}

/// What the declaration says of a tensor with audio.
struct Expected {
  std::int64_t size = 0;     ///< of F; 0 for any
  std::int64_t history = 1;  ///< of T, where an output may have more windows than one
  bool hasParts = false;     ///< C, or a second tensor
  bool hasRows = false;
  std::int64_t taps = 0;  ///< O, or as many times two of C
};

/// The layout of an input that carries one window or several. Nothing where the tensor does not
/// look like one.
std::optional<Layout> GuessInputLayout(const SourceTensor& tensor, const Expected& expected) {
  if (!IsAudio(tensor)) return {};
  const auto values = ValueAxes(tensor, expected.size);
  const auto parts = expected.hasParts ? AxesOf(tensor, [](std::int64_t size) { return size == 2; })
                                       : std::vector<std::size_t>();
  if (values.size() != 1 || parts.size() > 1) return {};
  Layout layout(tensor.shape.size(), undecided);
  layout[values[0]] = 'F';
  if (!parts.empty()) layout[parts[0]] = 'C';
  // Of the others one may hold several windows, if it is known which are the bins.
  const auto others = AxesOf(tensor, [](std::int64_t size) { return size > 1; });
  for (const std::size_t axis : others)
    if (layout[axis] == undecided && expected.size > 0 && tensor.shape[values[0]].size > 0 &&
        !Has(layout, 'T'))
      layout[axis] = 'T';
  if (expected.hasRows) {
    const auto free = AxesOf(tensor, [](std::int64_t size) { return size == 0; });
    for (const std::size_t axis : free)
      if (layout[axis] == undecided && !Has(layout, 'R')) layout[axis] = 'R';
    if (!Has(layout, 'R')) return {};
  }
  return Settle(std::move(layout), tensor.shape);
}

std::optional<Layout> GuessOutputLayout(const SourceTensor& tensor, const Expected& expected) {
  if (!IsAudio(tensor)) return {};
  const auto values = ValueAxes(tensor, expected.size);
  if (values.size() != 1) return {};
  Layout layout(tensor.shape.size(), undecided);
  const std::size_t place = values[0];
  layout[place] = 'F';
  if (expected.hasParts) {
    // Classes stand further out, so that of two dimensions of size 2 the one nearer to the bins, or
    // else the inner one, has the parts.
    const auto other = [&](std::int64_t size) {
      return AxesOf(tensor, [=](std::int64_t own) { return own == size; });
    };
    auto parts = other(2 * std::max<std::int64_t>(expected.taps, 1));
    if (const auto taps = other(expected.taps); parts.empty() && taps.size() == 1) {
      layout[taps[0]] = 'O';
      parts = other(2);
    }
    std::erase(parts, place);
    if (parts.empty()) return {};
    const auto distance = [=](std::size_t axis) {
      return axis > place ? axis - place : place - axis;
    };
    std::ranges::reverse(parts);
    layout[*std::ranges::min_element(parts, {}, distance)] = 'C';
  }
  for (std::size_t i = 0; i < tensor.shape.size(); ++i) {
    if (layout[i] != undecided || tensor.shape[i].size < 2) continue;
    const char letter = tensor.shape[i].size == expected.history ? 'T' : 'K';
    if (Has(layout, letter)) return {};
    layout[i] = letter;
  }
  return Settle(std::move(layout), tensor.shape);
}

/// One number, or one for each class.
std::optional<Layout> GuessGateLayout(const SourceTensor& tensor) {
  if (!IsAudio(tensor)) return {};
  Layout layout;
  for (const SourceDimension& dimension : tensor.shape)
    layout += dimension.size > 1 ? 'K' : '1';
  if (std::ranges::count(layout, 'K') > 1) return {};
  return layout;
}

/// UsageError unless `layout` is one, of the letters in `letters`, and fits the tensor's sizes.
void CheckLayout(const Layout& layout, std::string_view letters, const SourceTensor& tensor,
                 std::int64_t size) {
  const std::string shown = "the layout " + layout;
  for (const char letter : layout)
    if (letters.find(letter) == std::string_view::npos ||
        (letter != '1' && std::ranges::count(layout, letter) > 1))
      throw UsageError(shown + " may have the letters " + std::string(letters) +
                       ", each but 1 once");
  if (!Has(layout, 'F') && letters.find('F') != std::string_view::npos)
    throw UsageError(shown + " has no F, the bins or samples");
  if (!IsAudio(tensor) || layout.size() != tensor.shape.size())
    throw UsageError(shown + " does not fit " + SourceTensorText(tensor));
  for (std::size_t i = 0; i < layout.size(); ++i) {
    const std::int64_t own = tensor.shape[i].size;
    const bool fits = layout[i] == 'F'                       ? own == size || own == 0 || size == 0
                      : layout[i] == 'C'                     ? own % 2 == 0
                      : layout[i] == 'K' || layout[i] == 'O' ? own > 0
                      : layout[i] == 'T'                     ? true
                                                             : own <= 1;
    if (!fits)
      throw UsageError(shown + " does not fit " + SourceTensorText(tensor) + ": " + layout[i] +
                       " cannot have the size " + std::to_string(own));
  }
}

bool HasSameSizes(const SourceTensor& a, const SourceTensor& b) {
  return std::ranges::equal(a.shape, b.shape, {}, &SourceDimension::size, &SourceDimension::size);
}

// ---- States -------------------------------------------------------------------------------------

enum class CharacterKind { Letter, Digit, Other };

CharacterKind KindOf(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return std::isalpha(byte)   ? CharacterKind::Letter
         : std::isdigit(byte) ? CharacterKind::Digit
                              : CharacterKind::Other;
}

/// In lower case, split at punctuation, between letters and digits, and before capitals.
std::vector<std::string> Words(const std::string& name) {
  std::vector<std::string> words;
  CharacterKind last = CharacterKind::Other;
  bool lastIsLower = false;
  for (const char c : name) {
    const CharacterKind kind = KindOf(c);
    const bool isUpper = std::isupper(static_cast<unsigned char>(c)) != 0;
    if (kind != CharacterKind::Other) {
      if (kind != last || (isUpper && lastIsLower)) words.emplace_back();
      words.back() += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    last = kind;
    lastIsLower = kind == CharacterKind::Letter && !isUpper;
  }
  return words;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += word + ' ';
  return text;
}

/// The name without the words that tell in from out; empty where nothing else is in it.
std::string Stem(const std::string& name) {
  static constexpr std::array<std::string_view, 25> sides = {
      "in",      "input", "inputs", "i",      "prev",    "previous", "old",  "past", "last",
      "init",    "begin", "out",    "output", "outputs", "o",        "next", "new",  "present",
      "updated", "end",   "final",  "cur",    "curr",    "current",  "n"};
  std::vector<std::string> words = Words(name);
  std::erase_if(
      words, [](const std::string& word) { return std::ranges::find(sides, word) != sides.end(); });
  return Joined(words);
}

/// "h0" becomes "hn", as recurrent layers call their first and last state.
std::string LastOfFirst(const std::string& input) {
  std::vector<std::string> words = Words(input);
  const auto zero = std::ranges::find(words, "0");
  if (zero == words.end() || zero == words.begin()) return {};
  *(zero - 1) += 'n';
  words.erase(zero);
  return Joined(words);
}

bool Fit(const SourceTensor& input, const SourceTensor& output) {
  if (input.kind != output.kind) return false;
  if (!output.hasShape) return true;
  return std::ranges::equal(input.shape, output.shape, [](const auto& a, const auto& b) {
    return a.size == b.size || a.size == 0 || b.size == 0;
  });
}

SourceTensor Take(std::vector<SourceTensor>& from, const std::string& name, const char* side) {
  const auto place = std::ranges::find(from, name, &SourceTensor::name);
  if (place == from.end())
    throw Refusal("there is no " + std::string(side) + " '" + name +
                  "' that could be a state among " + SourceTensorText(from));
  SourceTensor taken = *place;
  from.erase(place);
  return taken;
}

void TakeByName(std::vector<SourceTensor>& inputs, std::vector<SourceTensor>& outputs,
                std::vector<StatePair>& pairs) {
  const auto belongs = [](const SourceTensor& a, const SourceTensor& b) {
    return Fit(a, b) && NamesPair(a.name, b.name);
  };
  for (std::size_t i = 0; i < inputs.size();) {
    const SourceTensor& input = inputs[i];
    const auto isPartner = [&](const SourceTensor& output) { return belongs(input, output); };
    const auto partner = std::ranges::find_if(outputs, isPartner);
    const bool isUnique = partner != outputs.end() &&
                          std::ranges::count_if(outputs, isPartner) == 1 &&
                          std::ranges::count_if(inputs, [&](const SourceTensor& other) {
                            return belongs(other, *partner);
                          }) == 1;
    if (!isUnique) {
      ++i;
      continue;
    }
    pairs.push_back({input, *partner});
    outputs.erase(partner);
    inputs.erase(inputs.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

/// By name, and one of each that is left over. Types and sizes have to agree. `named`: pairs that
/// the caller knows, taken first. Outputs that carry nothing on are left alone. Refusal, with what
/// to write, where an input has no partner or a named pair does not fit.
std::vector<StatePair> PairStates(std::vector<SourceTensor> inputs,
                                  std::vector<SourceTensor> outputs,
                                  const std::vector<std::pair<std::string, std::string>>& named) {
  std::vector<StatePair> pairs;
  for (const auto& [in, out] : named) {
    pairs.push_back({Take(inputs, in, "input"), Take(outputs, out, "output")});
    if (!Fit(pairs.back().input, pairs.back().output))
      throw Refusal("the state " + SourceTensorText(pairs.back().input) + " cannot become " +
                    SourceTensorText(pairs.back().output) + ": type or size differs");
  }
  TakeByName(inputs, outputs, pairs);
  if (inputs.size() == 1 && outputs.size() == 1 && Fit(inputs[0], outputs[0])) {
    pairs.push_back({inputs[0], outputs[0]});
    inputs.clear();
    outputs.clear();
  }
  if (!inputs.empty())
    throw Refusal(
        "inputs and outputs do not pair up as states by their names: left are the inputs " +
        SourceTensorText(inputs) + " and the outputs " + SourceTensorText(outputs) +
        ". Pair them with --state IN:OUT; give an input that is no state its value with --set "
        "NAME=NUMBER");
  for (const StatePair& pair : pairs)
    if (!pair.input.hasShape)
      throw Refusal("the state " + SourceTensorText(pair.input) +
                    "; its sizes have to be declared");
  return pairs;
}

// ---- Roles --------------------------------------------------------------------------------------

std::vector<SourceTensor> Named(const std::vector<SourceTensor>& tensors,
                                const std::vector<std::string>& names) {
  std::vector<SourceTensor> result;
  for (const std::string& name : names) {
    const auto place = std::ranges::find(tensors, name, &SourceTensor::name);
    if (place != tensors.end()) result.push_back(*place);
  }
  return result;
}

std::vector<SourceTensor> Without(const std::vector<SourceTensor>& tensors,
                                  const std::vector<SourceTensor>& taken) {
  std::vector<SourceTensor> rest;
  for (const SourceTensor& tensor : tensors)
    if (std::ranges::find(taken, tensor.name, &SourceTensor::name) == taken.end())
      rest.push_back(tensor);
  return rest;
}

/// States may have the shape of audio. Those that pair up by name go, unless nothing is left.
std::vector<SourceTensor> WithoutStates(const std::vector<SourceTensor>& candidates,
                                        const SourceModel& source, const AdaptRequest& request,
                                        bool areInputs) {
  std::vector<SourceTensor> rest, unnamed;
  for (const SourceTensor& tensor : candidates) {
    const bool isNamedState = std::ranges::any_of(request.states, [&](const auto& pair) {
      return (areInputs ? pair.first : pair.second) == tensor.name;
    });
    if (isNamedState) continue;
    unnamed.push_back(tensor);
    const auto& others = areInputs ? source.outputs : source.inputs;
    if (std::ranges::none_of(others, [&](const SourceTensor& other) {
          return areInputs ? NamesPair(tensor.name, other.name)
                           : NamesPair(other.name, tensor.name);
        }))
      rest.push_back(tensor);
  }
  return rest.empty() ? unnamed : rest;
}

/// Of several candidates those whose names say that they are states go, unless nothing is left.
void PreferNoStates(std::vector<SourceTensor>& candidates) {
  const auto saysState = [](const SourceTensor& tensor) {
    static const std::set<std::string> words = {"cache",  "state",  "states", "hidden",  "h",   "c",
                                                "memory", "buffer", "hist",   "history", "past"};
    return std::ranges::any_of(Words(tensor.name),
                               [](const std::string& word) { return words.contains(word); });
  };
  if (candidates.size() > 1 && !std::ranges::all_of(candidates, saysState))
    std::erase_if(candidates, saysState);
}

/// The real part first, where the names tell.
void OrderParts(std::vector<SourceTensor>& parts) {
  const auto isImaginary = [](const SourceTensor& tensor) {
    return tensor.name.find("im") != std::string::npos &&
           tensor.name.find("re") == std::string::npos;
  };
  if (parts.size() == 2 && isImaginary(parts[0]) && !isImaginary(parts[1]))
    std::swap(parts[0], parts[1]);
}

/// Of several candidates those with real and imaginary part together win.
void PreferParts(std::vector<SourceTensor>& candidates, auto layoutOf) {
  const auto lacksParts = [&](const SourceTensor& tensor) { return !Has(*layoutOf(tensor), 'C'); };
  if (candidates.size() > 1 && !std::ranges::all_of(candidates, lacksParts))
    std::erase_if(candidates, lacksParts);
}

std::string SizeText(const Expected& expected, bool isSpectral) {
  return expected.size == 0
             ? std::string()
             : " of " + std::to_string(expected.size) + (isSpectral ? " bins" : " samples");
}

/// Values of a window with `bins` that a feature has.
std::int64_t SizeOf(const Feature& feature, std::int64_t bins, std::int64_t bands) {
  std::int64_t size = bins;
  for (const FeatureStep& step : feature.steps) {
    if (step.kind == FeatureStep::Kind::Bands) {
      if (size != bins)
        throw UsageError("'" + feature.text +
                         "' has bands of bins that are no longer there: put "
                         "bands first");
      size = bands;
    } else if (step.kind == FeatureStep::Kind::Lowest) {
      if (size > 0 && step.count > size)
        throw UsageError("'" + feature.text + "' takes the lowest " + std::to_string(step.count) +
                         " of " + std::to_string(size) + " values");
      size = step.count;
    }
  }
  return size;
}

std::int64_t SizeOf(const Result& result, std::int64_t bins, std::int64_t bands) {
  if (result.lowest > bins)
    throw UsageError("'" + result.text + "' has more bins than the transform, " +
                     std::to_string(bins));
  return result.isOfBands ? bands : result.lowest > 0 ? result.lowest : bins;
}

bool HasRealAndImaginary(const Feature& feature) {
  return feature.kind == Feature::Kind::Spectrum || feature.kind == Feature::Kind::Unknown;
}

/// One part of the model: `request` seen from it.
class PartRoles {
public:
  PartRoles(const std::vector<SourceModel>& sources, const AdaptRequest& request, std::size_t index)
      : source(sources[index]), request(request) {
    for (const char* option : {"--in", "--out", "--input-layout", "--output-layout"}) {
      const std::size_t given = option == std::string("--in")    ? request.features.size()
                                : option == std::string("--out") ? request.results.size()
                                : option == std::string("--input-layout")
                                    ? request.inputLayouts.size()
                                    : request.outputLayouts.size();
      if (given != 0 && given != sources.size())
        throw UsageError(std::string(option) + ", or the family of --like, has " +
                         Diagnosis::Counted(given, "value") + " for " +
                         Diagnosis::Counted(sources.size(), "model file") +
                         "; name one for each file");
    }
    if (!request.results.empty()) roles.result = request.results[index];
    if (!request.inputLayouts.empty()) inputLayout = request.inputLayouts[index];
    if (!request.outputLayouts.empty()) outputLayout = request.outputLayouts[index];
    for (const SourceTensor& input : source.inputs) {
      const bool isSet =
          std::ranges::find(request.constants, input.name, &NamePairs::value_type::first) !=
          request.constants.end();
      if (isSet)
        roles.constants.push_back(input);
      else if (!TakeLink(sources, index, input))
        inputs.push_back(input);
    }
    if (request.namedFeatures.empty()) {
      roles.inputs.emplace_back();
      if (!request.features.empty()) roles.inputs[0].feature = request.features[index];
    }
    for (const auto& [name, feature] : request.namedFeatures)
      if (std::ranges::find(inputs, name, &SourceTensor::name) != inputs.end())
        roles.inputs.push_back({feature, Named(inputs, {name}), {}});
  }

  /// `size`: of F, 0 where the tensor has to say it. Of several inputs one of `likely` wins.
  void DecideInput(AudioInput& input, std::int64_t size, std::int64_t likely) const {
    const Expected expected{size, 1, HasRealAndImaginary(input.feature),
                            input.feature.kind == Feature::Kind::Rows};
    const auto guess = [&](const SourceTensor& tensor) {
      return GuessInputLayout(tensor, expected);
    };
    const bool isSpectral = IsSpectral(input.feature);
    if (input.tensors.empty()) input.tensors = Named(inputs, request.inputs);
    if (input.tensors.empty()) {
      std::vector<SourceTensor> candidates;
      std::ranges::copy_if(inputs, std::back_inserter(candidates),
                           [&](const SourceTensor& tensor) { return guess(tensor).has_value(); });
      candidates = WithoutStates(candidates, source, request, true);
      PreferNoStates(candidates);
      if (expected.hasParts) PreferParts(candidates, guess);
      const auto isUnlikely = [&](const SourceTensor& tensor) {
        return OwnSize(tensor, *guess(tensor)) != likely;
      };
      if (!std::ranges::all_of(candidates, isUnlikely)) std::erase_if(candidates, isUnlikely);
      const bool areParts = expected.hasParts && candidates.size() == 2 &&
                            HasSameSizes(candidates[0], candidates[1]) &&
                            !Has(*guess(candidates[0]), 'C');
      if (candidates.empty())
        throw Refusal(
            "no input of " + source.path + " carries one window of " +
            (isSpectral ? "a spectrum" : "audio") + SizeText(expected, isSpectral) +
            (expected.hasParts ? " (bins, real and imaginary part, nothing else above 1)" : "") +
            ". The model has " + SourceTensorText(inputs) +
            ". Name it with --input, say its --input-layout, with --in what it takes, or with "
            "--window how many samples");
      if (candidates.size() > 1 && !areParts)
        throw Refusal("audio could come in by " + SourceTensorText(candidates) +
                      "; say which with --input NAME" +
                      (expected.hasParts ? ", or --input REAL,IMAGINARY" : "") +
                      ", or what each takes with --in NAME=WORD");
      input.tensors = candidates;
      OrderParts(input.tensors);
    }
    const SourceTensor& first = input.tensors[0];
    if (!inputLayout.empty()) {
      CheckLayout(inputLayout, expected.hasRows ? "NTFR1" : "NTFC1", first,
                  size > 0 ? size : OwnSize(first, inputLayout));
      input.layout = inputLayout;
    } else if (const auto layout = guess(first)) {
      input.layout = *layout;
    } else {
      throw Refusal("the dimensions of " + SourceTensorText(first) + " cannot be told apart" +
                    SizeText(expected, isSpectral) +
                    "; say them with --input-layout, or what the model takes with --in");
    }
    CheckInputParts(input);
    input.size = OwnSize(first, input.layout);
    if (input.size == 0) input.size = size;
    if (input.size == 0)
      throw Refusal("the number of bins or samples of " + SourceTensorText(first) +
                    " is free; say --window, the samples of a window");
    const std::size_t time = input.layout.find('T');
    if (time != Layout::npos) input.history = std::max<std::int64_t>(first.shape[time].size, 1);
  }

  /// `size`: of F; 0 for any. A gate has none.
  void DecideOutputs(std::int64_t size) {
    const AudioInput* const input = roles.inputs.empty() ? nullptr : roles.inputs.data();
    if (roles.result.kind == Result::Kind::Unknown) {
      if (input == nullptr || !HasRealAndImaginary(input->feature))
        throw Refusal("--out has to say what " + source.path +
                      " returns: spectrum, mask, complex-mask, samples, gate, or none");
      roles.result.kind = Result::Kind::Spectrum;
    }
    if (roles.result.kind == Result::Kind::None) return;
    const bool isGate = roles.result.kind == Result::Kind::Gate;
    const bool isComplex = roles.result.kind == Result::Kind::Spectrum ||
                           roles.result.kind == Result::Kind::ComplexMask;
    Expected expected{isGate ? 0 : size, input == nullptr ? 1 : input->history,
                      input == nullptr || Has(input->layout, 'C'), false, roles.result.taps};
    if (!isComplex) expected.hasParts = false;
    if (!outputLayout.empty()) expected.hasParts = Has(outputLayout, 'C');
    const auto guess = [&](const SourceTensor& tensor) {
      if (isGate) return GuessGateLayout(tensor);
      if (!isComplex) return GuessOutputLayout(tensor, expected);
      auto layout = GuessOutputLayout(tensor, expected);
      if (layout || !outputLayout.empty() || expected.taps > 0) return layout;
      // The parts may stand together on one side and apart on the other.
      Expected other = expected;
      other.hasParts = !expected.hasParts;
      return GuessOutputLayout(tensor, other);
    };
    roles.outputs = Named(source.outputs, request.outputs);
    if (roles.outputs.empty()) {
      std::vector<SourceTensor> candidates;
      std::ranges::copy_if(source.outputs, std::back_inserter(candidates),
                           [&](const SourceTensor& tensor) { return guess(tensor).has_value(); });
      candidates = WithoutStates(candidates, source, request, false);
      PreferNoStates(candidates);
      PreferParts(candidates, guess);
      std::erase_if(candidates, [&](const SourceTensor& tensor) {
        return !HasSameSizes(tensor, candidates.front());
      });
      roles.outputs = candidates;
      OrderParts(roles.outputs);
    }
    if (roles.outputs.empty())
      throw Refusal("no output of " + source.path + " carries a window's " +
                    ResultText(roles.result) + SizeText(expected, IsSpectral(roles.result)) +
                    ". The model has " + SourceTensorText(source.outputs) +
                    ". Name it with --output, or say its --output-layout, or with --out what it "
                    "returns");
    const SourceTensor& first = roles.outputs[0];
    if (!outputLayout.empty()) {
      CheckLayout(outputLayout, isGate ? "K1" : "KNTFCO1", first, expected.size);
      roles.outputLayout = outputLayout;
    } else if (const auto layout = guess(first)) {
      roles.outputLayout = *layout;
    } else {
      throw Refusal("the dimensions of " + SourceTensorText(first) + " cannot be told apart" +
                    SizeText(expected, IsSpectral(roles.result)) +
                    "; say them with --output-layout, or what the model returns with --out");
    }
    DecideClasses(first, isComplex);
    roles.outputSize = isGate ? 1 : OwnSize(first, roles.outputLayout);
    if (roles.outputSize == 0) roles.outputSize = expected.size;
    const std::size_t time = roles.outputLayout.find('T');
    if (time != Layout::npos)
      roles.outputHistory = std::max<std::int64_t>(first.shape[time].size, 1);
  }

  Roles Finish() {
    const auto isOwn = [&](const std::pair<std::string, std::string>& pair) {
      return std::ranges::find(source.inputs, pair.first, &SourceTensor::name) !=
             source.inputs.end();
    };
    NamePairs own;
    std::ranges::copy_if(request.states, std::back_inserter(own), isOwn);
    std::vector<SourceTensor> taken;
    for (const AudioInput& input : roles.inputs)
      taken.insert(taken.end(), input.tensors.begin(), input.tensors.end());
    roles.states = PairStates(Without(inputs, taken), Without(source.outputs, roles.outputs), own);
    return roles;
  }

  Roles roles;

private:
  /// Whether an earlier part has the output that --link says goes into `input`.
  bool TakeLink(const std::vector<SourceModel>& sources, std::size_t index,
                const SourceTensor& input) {
    for (const auto& [out, in] : request.links) {
      if (in != input.name) continue;
      for (std::size_t part = index; part-- > 0;)
        for (const SourceTensor& output : sources[part].outputs) {
          if (output.name != out) continue;
          if (!Fit(input, output))
            throw Refusal("the output " + SourceTensorText(output) + " of " + sources[part].path +
                          " does not fit the input " + SourceTensorText(input) + " of " +
                          source.path + ": change --link");
          roles.links.push_back({part, output, input});
          return true;
        }
    }
    return false;
  }

  static std::int64_t OwnSize(const SourceTensor& tensor, const Layout& layout) {
    const std::size_t place = layout.find('F');
    return place < tensor.shape.size() ? tensor.shape[place].size : 0;
  }

  static void CheckInputParts(AudioInput& input) {
    const std::size_t expected =
        HasRealAndImaginary(input.feature) && !Has(input.layout, 'C') ? 2 : 1;
    if (input.tensors.size() == expected &&
        HasSameSizes(input.tensors.front(), input.tensors.back())) {
      if (input.feature.kind == Feature::Kind::Unknown)
        input.feature.kind = Feature::Kind::Spectrum;
      return;
    }
    throw Refusal(expected == 1
                      ? "audio comes in by one tensor, not by " + SourceTensorText(input.tensors) +
                            ": change --input"
                      : "the input " + SourceTensorText(input.tensors[0]) +
                            " has no real and imaginary part, and no second tensor like it "
                            "has the other. If it takes something else, say so: --in magnitude, "
                            "power, log-power:FLOOR, samples");
  }

  void DecideClasses(const SourceTensor& first, bool isComplex) {
    for (const SourceTensor& output : roles.outputs)
      if (!HasSameSizes(output, first))
        throw Refusal("the outputs " + SourceTensorText(first) + " and " +
                      SourceTensorText(output) + " differ; name those with audio with --output");
    const std::size_t parts = Has(roles.outputLayout, 'C') || !isComplex ? 1 : 2;
    const std::size_t classAxis = roles.outputLayout.find('K');
    if (roles.outputs.size() % parts != 0 ||
        (classAxis != Layout::npos && roles.outputs.size() != parts))
      throw Refusal(
          "the outputs " + SourceTensorText(roles.outputs) +
          " are no pairs of real and imaginary part, or have classes twice; name those with "
          "audio with --output");
    roles.classCount = classAxis == Layout::npos
                           ? static_cast<std::int64_t>(roles.outputs.size() / parts)
                           : first.shape[classAxis].size;
  }

  const SourceModel& source;
  const AdaptRequest& request;
  std::vector<SourceTensor> inputs;  ///< audio and states
  Layout inputLayout, outputLayout;
};

/// Names that no part has, and that are thus misspelt.
void CheckNames(const std::vector<SourceModel>& sources, const AdaptRequest& request) {
  std::vector<SourceTensor> inputs, outputs;
  for (const SourceModel& source : sources) {
    inputs.insert(inputs.end(), source.inputs.begin(), source.inputs.end());
    outputs.insert(outputs.end(), source.outputs.begin(), source.outputs.end());
  }
  const auto check = [](const std::vector<SourceTensor>& tensors, const std::string& name,
                        const std::string& side, const char* option) {
    if (std::ranges::find(tensors, name, &SourceTensor::name) == tensors.end())
      throw Refusal("the model has no " + side + " '" + name + "' (" + option + "), it has " +
                    SourceTensorText(tensors));
  };
  for (const std::string& name : request.inputs)
    check(inputs, name, "input", "--input");
  for (const std::string& name : request.outputs)
    check(outputs, name, "output", "--output");
  for (const auto& [in, out] : request.states) {
    check(inputs, in, "input", "--state");
    check(outputs, out, "output", "--state");
  }
  for (const auto& [name, feature] : request.namedFeatures)
    check(inputs, name, "input", "--in");
  for (const auto& [out, in] : request.links) {
    check(outputs, out, "output", "--link");
    check(inputs, in, "input", "--link");
  }
  for (const auto& [name, value] : request.constants)
    check(inputs, name, "input", "--set");
  for (const auto& [name, value] : request.initial)
    check(inputs, name, "input", "--initial");
}

// ---- The sizes around the parts -----------------------------------------------------------------

std::int64_t Signed(std::uint64_t value) {
  return static_cast<std::int64_t>(value);
}

bool ChangesSize(const FeatureStep& step) {
  return step.kind == FeatureStep::Kind::Bands || step.kind == FeatureStep::Kind::Lowest;
}

/// What F is in the input of a part, as far as the options say; else 0.
std::int64_t DeclaredSize(const Feature& feature, const Framing& framing, bool isFirst) {
  if (feature.kind == Feature::Kind::Rows) return framing.context + 1;
  const std::int64_t frame = framing.transform > 0 ? framing.transform : framing.window;
  if (!IsSpectral(feature)) return frame > 0 && isFirst ? frame + framing.context : frame;
  const bool isWhole = std::ranges::none_of(feature.steps, ChangesSize);
  const std::int64_t bins = framing.transform > 0 ? framing.Bins() : isWhole ? 0 : frame / 2 + 1;
  return SizeOf(feature, bins, std::ssize(framing.bands));
}

/// The sizes that the options say, before the tensors of the first part have been seen.
Framing DeclaredFraming(const AdaptRequest& request) {
  Framing framing;
  framing.hop = Signed(request.hop);
  framing.window = Signed(request.window);
  framing.context = Signed(request.context);
  framing.windowName = request.windowName;
  framing.joining = request.joining;
  framing.transform = Signed(request.transform);
  framing.bands = request.bands;
  return framing;
}

/// The first input tells the size of its window where the options do not.
void TakeSizes(Framing& framing, const AudioInput& first) {
  if (framing.transform == 0) {
    if (first.feature.kind == Feature::Kind::Rows)
      framing.transform = framing.hop;
    else if (!IsSpectral(first.feature))
      framing.transform = first.size - framing.context;
    else if (std::ranges::none_of(first.feature.steps, ChangesSize))
      framing.transform = 2 * (first.size - 1);
    else if (framing.window > 0)
      framing.transform = framing.window;
    else
      throw Refusal("the input " + SourceTensorText(first.tensors[0]) + " as " +
                    FeatureText(first.feature) +
                    " does not tell how many bins there are: say --window");
  }
  if (framing.window == 0) framing.window = framing.transform;
  if (framing.transform < 1 || framing.window > framing.transform)
    throw Refusal("the input " + SourceTensorText(first.tensors[0]) + " takes windows of " +
                  std::to_string(framing.transform) + " samples; --window says " +
                  std::to_string(framing.window) + ", --context " +
                  std::to_string(framing.context));
}

/// Bands have all bins of the transform, where something is of bands.
void CheckBands(const Framing& framing, const std::vector<Roles>& parts) {
  std::int64_t sum = 0;
  for (const std::int64_t width : framing.bands)
    sum += width;
  const bool areUsed = std::ranges::any_of(parts, [](const Roles& roles) {
    return roles.result.isOfBands || std::ranges::any_of(roles.inputs, [](const AudioInput& input) {
             return std::ranges::find(input.feature.steps, FeatureStep::Kind::Bands,
                                      &FeatureStep::kind) != input.feature.steps.end();
           });
  });
  if ((areUsed || sum > 0) && sum != framing.Bins())
    throw UsageError("--bands has " + std::to_string(sum) + " bins, the transform has " +
                     std::to_string(framing.Bins()));
}

bool TakesSpectra(const AudioInput& input) {
  return IsSpectral(input.feature);
}

bool HasSpectra(const std::vector<Roles>& parts) {
  return std::ranges::any_of(parts, [](const Roles& roles) {
    return std::ranges::any_of(roles.inputs, TakesSpectra) || IsSpectral(roles.result);
  });
}

/// Samples of a window that an output holds: a whole window of the model, or one hop of finished
/// ones.
std::int64_t SampleCount(const Framing& framing, const SourceModel& source) {
  const auto has = [&](std::int64_t size) {
    return std::ranges::any_of(source.outputs, [&](const SourceTensor& output) {
      return std::ranges::count(output.shape, size, &SourceDimension::size) > 0;
    });
  };
  const bool isHop = framing.joining == Joining::Finished ||
                     (framing.joining == Joining::Unknown && !has(framing.transform));
  return isHop && framing.hop > 0 ? framing.hop : framing.transform;
}

void DecideJoining(Framing& framing, const std::vector<Roles>& parts) {
  const Roles& last = parts.back();
  if (framing.joining == Joining::Unknown) {
    const bool isFinished = last.result.kind == Result::Kind::Gate ||
                            (last.result.kind == Result::Kind::Samples &&
                             (framing.hop == 0 || last.outputSize == framing.hop));
    framing.joining = isFinished ? Joining::Finished : Joining::Windowed;
  }
  if (framing.hop == 0) {
    framing.isHopAssumed = true;
    framing.hop = framing.joining == Joining::Finished ? framing.transform : framing.transform / 2;
  }
  if (framing.windowName.empty()) {
    framing.isWindowAssumed = HasSpectra(parts);
    framing.windowName = framing.isWindowAssumed ? "root-hann" : "rectangular";
  }
  if (framing.hop > framing.transform)
    throw Refusal("a hop of " + std::to_string(framing.hop) +
                  " samples is longer than the window "
                  "of " +
                  std::to_string(framing.transform) + " that the model takes: change --hop");
}

/// Each output has the size that what comes behind it needs.
void CheckOutputSizes(const Framing& framing, const std::vector<Roles>& parts) {
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const Roles& roles = parts[i];
    const bool isLast = i + 1 == parts.size();
    if (roles.result.kind == Result::Kind::None && isLast)
      throw UsageError("--out: the last model has to return audio");
    if (roles.result.kind == Result::Kind::None || roles.result.kind == Result::Kind::Gate)
      continue;
    const std::int64_t expected =
        IsSpectral(roles.result) ? SizeOf(roles.result, framing.Bins(), std::ssize(framing.bands))
        : isLast && framing.joining == Joining::Finished ? framing.hop
                                                         : framing.transform;
    if (roles.outputSize != expected)
      throw Refusal("the output " + SourceTensorText(roles.outputs[0]) + " has " +
                    std::to_string(roles.outputSize) + " values for " + ResultText(roles.result) +
                    " (--out), " + std::to_string(expected) +
                    " are expected: change --hop, --window, --transform or --join");
    if ((!isLast || roles.result.lowest > 0) && roles.classCount > 1)
      throw Refusal("the output " + SourceTensorText(roles.outputs[0]) +
                    " has several classes; only the last model may, with all bins");
  }
}

/// How late the output is, in hops of the contract and samples that it is held back besides.
void DecideDelay(Plan& plan, const AdaptRequest& request) {
  const Framing& framing = plan.framing;
  std::int64_t late = Signed(request.delay);
  if (!framing.isOnSpectra && framing.joining != Joining::Finished)
    late += framing.transform - (framing.transform - framing.window) / 2 - framing.hop;
  const std::int64_t hops = (late + framing.hop - 1) / framing.hop;
  if (framing.isOnSpectra && hops * framing.hop != late)
    throw Refusal("--delay has to be whole hops of " + std::to_string(framing.hop) +
                  " samples here, or say --lookahead in windows");
  plan.lookahead = hops + Signed(request.lookahead);
  plan.delayLine = hops * framing.hop - late;
  for (const Roles& roles : plan.parts)
    if (roles.result.ahead > Signed(request.lookahead))
      throw UsageError("--out " + ResultText(roles.result) + " takes " +
                       Diagnosis::Counted(static_cast<std::size_t>(roles.result.ahead), "window") +
                       " after its own: say --lookahead, the windows by which it is late");
}

}  // namespace

// ---- Public -------------------------------------------------------------------------------------

std::string LayoutText(const Layout& layout, bool isSpectral) {
  std::string text;
  for (const char letter : layout) {
    const char* name = letter == 'N'   ? "channels"
                       : letter == 'T' ? "windows"
                       : letter == 'F' ? isSpectral ? "bins" : "samples"
                       : letter == 'C' ? "parts"
                       : letter == 'K' ? "classes"
                       : letter == 'O' ? "taps"
                       : letter == 'R' ? "rows"
                                       : "1";
    text += (text.empty() ? "[" : ", ") + std::string(name);
  }
  return text.empty() ? "[]" : text + "]";
}

bool IsTime(const std::vector<SourceDimension>& shape, std::size_t free) {
  return NamesTime(shape[free]) || (free != 0 && !NamesBatch(shape[free]));
}

bool NamesPair(const std::string& input, const std::string& output) {
  const std::string stem = Stem(input);
  return (!stem.empty() && stem == Stem(output)) || LastOfFirst(input) == Joined(Words(output));
}

Plan MakePlan(std::vector<SourceModel> sources, const AdaptRequest& request) {
  CheckNames(sources, request);
  Plan plan;
  plan.sources = std::move(sources);
  plan.framing = DeclaredFraming(request);
  Framing& framing = plan.framing;
  bool isSized = false;
  for (std::size_t i = 0; i < plan.sources.size(); ++i) {
    PartRoles part(plan.sources, request, i);
    bool hasRows = false;
    for (AudioInput& input : part.roles.inputs) {
      hasRows = input.feature.kind == Feature::Kind::Rows;
      if (hasRows && (plan.sources.size() > 1 || framing.hop == 0))
        throw UsageError("--in rows goes with one model, and with --hop, the samples that it "
                         "returns at once");
      part.DecideInput(input, DeclaredSize(input.feature, framing, i == 0), framing.window / 2 + 1);
      if (!std::exchange(isSized, true)) TakeSizes(framing, input);
    }
    if (!isSized)
      throw UsageError("no --in NAME=WORD says what " + plan.sources[i].path +
                       " takes, which has " + SourceTensorText(plan.sources[i].inputs));
    const Result& result = part.roles.result;
    part.DecideOutputs(hasRows ? framing.hop
                       : result.kind == Result::Kind::Samples
                           ? SampleCount(framing, plan.sources[i])
                           : SizeOf(result, framing.Bins(), std::ssize(framing.bands)));
    plan.parts.push_back(part.Finish());
  }
  CheckBands(framing, plan.parts);
  DecideJoining(framing, plan.parts);
  CheckOutputSizes(framing, plan.parts);
  const Roles& last = plan.parts.back();
  if (!request.classes.empty() &&
      request.classes.size() != static_cast<std::size_t>(last.classCount))
    throw Refusal("the model gives " + std::to_string(last.classCount) +
                  (last.classCount == 1 ? " class" : " classes") + ", --classes names " +
                  std::to_string(request.classes.size()));
  framing.isOnSpectra =
      !request.isAllInGraph && 2 * framing.hop == framing.transform && framing.context == 0 &&
      framing.joining == Joining::Windowed && std::ranges::all_of(plan.parts, [](const Roles& r) {
        return std::ranges::all_of(r.inputs, TakesSpectra) && IsSpectral(r.result);
      });
  DecideDelay(plan, request);
  const Roles& first = plan.parts[0];
  const bool isStep = framing.isOnSpectra && plan.parts.size() == 1 && first.inputs.size() == 1 &&
                      first.inputs[0].feature.kind == Feature::Kind::Spectrum &&
                      first.inputs[0].feature.steps.empty() && first.inputs[0].history == 1 &&
                      first.result.kind == Result::Kind::Spectrum && first.outputHistory == 1;
  plan.needsStep = !isStep || !first.constants.empty() || !request.initial.empty() ||
                   request.scale != 1 || request.normalisation;
  return plan;
}

}  // namespace Orvik::Tesmo::Tool
