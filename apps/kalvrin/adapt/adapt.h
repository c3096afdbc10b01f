#pragma once

// Turns a streaming model of another form into one of the library's contract:
//
//   declaration --> parts: each model file, with the roles of its tensors
//                     |
//                     v
//              step: one window of one channel, front and back end included
//                     |    (a model that needs neither is its own step)
//                     v
//              adapted model: the step, looped over channels and windows
//
// Errors are Refusal (the model does not fit) and UsageError (the declaration contradicts itself).
// Both say which tensor or word is wrong, and which option to change.

#include "model/model.h"
#include "platform/platform.h"

#include <onnx/onnx_pb.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Orvik::Tesmo::Tool {

// ---- What the caller declares -------------------------------------------------------------------

/// One operation on the features of a window, value by value unless it says otherwise.
struct FeatureStep {
  enum class Kind {
    Log,           ///< the natural logarithm of x, or of `floor` where x is less
    LogOfSum,      ///< the natural logarithm of x + floor
    Times,         ///< x * factor
    Bands,         ///< the mean of x over the bins of each band
    Lowest,        ///< the lowest `count` bins alone
    Fixed,         ///< (x - mean) / deviation
    RunningMean,   ///< x - s, where s = keep * s + (1 - keep) * x
    RunningLevel,  ///< x / s, where s = keep * s + (1 - keep) * |x|
    RunningRoot    ///< x / sqrt(s), s likewise
  };
  Kind kind = Kind::Times;
  double floor = 0, factor = 1, keep = 0;
  std::int64_t count = 0;
  std::vector<double> mean, deviation;  ///< one value, or one for each bin
  double first = 0, last = 0;           ///< the first s: of the lowest bin, ... of the highest
};

/// What a model is given for each window.
struct Feature {
  enum class Kind {
    Unknown,    ///< a complex spectrum, if the tensors look like it
    Samples,    ///< the window's samples
    Rows,       ///< for each new sample the samples up to it, as one row
    Spectrum,   ///< real and imaginary part of each bin
    Magnitude,  ///< of each bin
    Power       ///< of each bin: the magnitude squared
  };
  Kind kind = Kind::Unknown;
  std::vector<FeatureStep> steps;
  std::string text;  ///< as declared
};

/// What a model returns for each window and class.
struct Result {
  enum class Kind {
    Unknown,  ///< a complex spectrum, if the tensors look like it
    None,     ///< nothing but what other parts take
    Samples,
    Spectrum,     ///< real and imaginary part of each bin
    Mask,         ///< a real factor for each bin
    ComplexMask,  ///< a complex factor for each bin
    Gate          ///< one factor for all samples of the window
  };
  Kind kind = Kind::Unknown;
  bool isOfBands = false;   ///< one factor for all bins of a band
  std::int64_t lowest = 0;  ///< bins that it has; the others stay as they are. 0: all
  /// A complex mask with `taps` factors for each bin is a filter over as many windows of the
  /// spectrum that the first part is given, of which `ahead` come after the one that it is for.
  std::int64_t taps = 0, ahead = 0;
  std::string text;  ///< as declared
};

/// How the windows that come out become a stream.
enum class Joining {
  Unknown,
  Windowed,  ///< windowed again, so that the overlapping windows add up to one, and added
  Added,     ///< added as they are
  Finished   ///< each holds one hop of finished samples
};

using NamePairs = std::vector<std::pair<std::string, std::string>>;

/// What the caller knows of a model. What is empty, 0 or Unknown is found out, or assumed and said
/// to be so. Lists have an element for each part of a model in several parts.
struct AdaptRequest {
  std::vector<std::string> inputs, outputs;              ///< names of the tensors with audio
  std::vector<std::string> inputLayouts, outputLayouts;  ///< a layout for each part
  NamePairs states;                                      ///< input, output
  NamePairs constants;                                   ///< input, number
  NamePairs initial;                                     ///< state input, first value
  NamePairs links;                                       ///< output, input of a later part
  bool carriesHiddenStates = false;
  bool isAllInGraph = false;  ///< windows and transforms, where the library has them, too
  std::vector<Feature> features;
  std::vector<std::pair<std::string, Feature>> namedFeatures;  ///< by input, instead of `features`
  std::vector<Result> results;
  std::vector<std::int64_t> bands;  ///< bins of each, from the lowest
  Joining joining = Joining::Unknown;
  std::optional<FeatureStep> normalisation;  ///< the last step of every feature that is real
  std::string windowName;                    ///< one of WindowNames()
  std::uint64_t window = 0;                  ///< samples under the window
  std::uint64_t transform = 0;               ///< samples of the discrete Fourier transform
  std::uint64_t hop = 0;                     ///< samples
  std::uint64_t context = 0;    ///< samples before the window that the model is given as well
  std::uint64_t delay = 0;      ///< samples that the model's output is late
  std::uint64_t lookahead = 0;  ///< windows that the model's output is late
  double scale = 1;             ///< of the transform that the model knows; 1: unscaled
  std::uint64_t rate = 0;       ///< Hz
  std::string name;
  std::vector<std::string> classes;
};

/// Words of the options. UsageError for an unknown one, with the list of those that there are.
Feature ParseFeature(std::string_view text);
Result ParseResult(std::string_view text);
Joining ParseJoining(std::string_view text);
/// One operation, without those that change the number of bins.
FeatureStep ParseNormalisation(std::string_view text);
/// "hann", "400" or "hann:400"
void ParseWindow(std::string_view text, AdaptRequest& request);
double ParseNumber(std::string_view text);
std::vector<std::string> SplitAt(std::string_view text, char separator);

std::string FeatureText(const Feature& feature);
std::string ResultText(const Result& result);
bool IsSpectral(const Feature& feature);
bool IsSpectral(const Result& result);
/// A factor for each bin.
bool IsMask(const Result& result);

/// The window called `name`, `length` samples centred in `transform`; in between zeros.
std::vector<double> MakeWindow(const std::string& name, std::size_t length, std::size_t transform);
/// What to multiply each window by after the model, so that windows under `analysis` at distances
/// of `hop` add up to one.
std::vector<double> SynthesisWindow(const std::vector<double>& analysis, std::size_t hop);

/// A family: options of models that are known, in a text file.
struct Family {
  std::string name, about;
  NamePairs options;  ///< "window", "hann:400"
};
/// `text`: a file, or the name of an installed family. Each line is an option without its dashes
/// and its value; # begins a comment, of which the first line is `about`.
Family ReadFamily(const std::string& text);
/// The installed ones, by name.
std::vector<Family> InstalledFamilies();

// ---- A model of someone else's, as its file declares it -----------------------------------------

struct SourceDimension {
  std::int64_t size = 0;  ///< 0: free
  std::string symbol;     ///< of a free one; may be empty
};

/// A tensor that goes in or out.
struct SourceTensor {
  std::string name;
  std::uint32_t kind = 0;  ///< a Platform::TensorKind
  bool hasShape = false;
  std::vector<SourceDimension> shape;
};

struct SourceModel {
  std::string path;
  onnx::ModelProto proto;
  int opset = 0;                     ///< of ONNX's own operators
  std::vector<SourceTensor> inputs;  ///< without those that have a default value
  std::vector<SourceTensor> outputs;
};

/// Weights in other files, which have to lie in the model's folder, are taken in. Opsets 7 to 10
/// become 17. Refusal for what is no ONNX model, has another opset than 7 to 21, or inputs or
/// outputs that are no tensors.
SourceModel ReadSourceModel(const ModelFile& file);

/// `model` with opset `opset`, by the converter of the ONNX project. Refusal where that fails.
void ConvertOpset(SourceModel& model, int opset);

/// "'mix' float32 [1, 257, *, 2]"
std::string SourceTensorText(const SourceTensor& tensor);
/// The same of several.
std::string SourceTensorText(const std::vector<SourceTensor>& tensors);

/// Runs the model once on zeros where the sizes of outputs are not known, free dimensions of
/// inputs being 1, and once more with 2, to learn which of them depend on those.
void LearnShapes(Platform::Runtime& runtime, SourceModel& model, const AdaptRequest& request);

/// Makes what the graph hides inputs and outputs of the model: states of GRU, LSTM and RNN nodes
/// that start at zero at each evaluation, and the windows that are padded with zeros in front of
/// the first one. Returns their pairs. Refusal where the model then returns something else, window
/// by window, than for many windows at once.
NamePairs BringOutHiddenStates(Platform::Runtime& runtime, SourceModel& model,
                               const AdaptRequest& request);

/// `tensor` filled with `values`, or with the only one, free dimensions being 1. `option` is named
/// in the Refusal for types that are no numbers.
onnx::TensorProto FilledTensor(const SourceTensor& tensor, const std::vector<double>& values,
                               const char* option);

// ---- Running a model ----------------------------------------------------------------------------

/// A model of any contract on the engine, its tensors bound by name. Shapes are concrete. Every
/// operation throws what the engine fails with.
class ModelRun {
public:
  ModelRun(Platform::Runtime& runtime, const std::string& bytes);

  /// The place of its values in Get and Set.
  std::size_t Bind(Platform::Side side, const std::string& name, const Platform::Shape& shape,
                   std::uint32_t kind = Platform::TensorKind::Float);
  void BindState(const std::string& input, const std::string& output, std::uint32_t kind,
                 const Platform::Shape& shape);

  /// After the last Bind, before the first Evaluate, and to start again: all values become 0.
  void Restart();
  void Evaluate();

  /// Of a tensor of floats (int64 numbers: GetNumbers).
  void Set(std::size_t tensor, const std::vector<float>& values);
  std::vector<float> Get(std::size_t tensor);
  std::vector<std::int64_t> GetNumbers(std::size_t tensor);

private:
  struct Bound {
    std::shared_ptr<Platform::Tensor> tensor;
    std::size_t size;
  };
  template <class Value>
  std::vector<Value> Copy(std::size_t tensor);
  void Connect(Platform::Side side, const std::string& name,
               const std::shared_ptr<Platform::Tensor>& tensor);

  Platform::Runtime& runtime;
  std::shared_ptr<Platform::Session> session;
  std::shared_ptr<Platform::Binding> binding;
  std::vector<Bound> bound;
};

// ---- Which tensors carry audio, how, and which are states ---------------------------------------

/// What the dimensions of an audio tensor mean, outermost first, one letter for each: N channels (a
/// batch), T windows (time), F bins or samples, C real and imaginary part (of all taps, unless a
/// dimension has those), K classes, O taps, R rows, 1 nothing (its size is 1). Every letter but 1
/// at most once.
using Layout = std::string;

inline bool Has(const Layout& layout, char letter) {
  return layout.find(letter) != Layout::npos;
}
/// "[channels, bins, windows, parts]"
std::string LayoutText(const Layout& layout, bool isSpectral);

/// Whether dimension `free`, the only one of no size, is time and not a batch.
bool IsTime(const std::vector<SourceDimension>& shape, std::size_t free);

struct StatePair {
  SourceTensor input;
  SourceTensor output;
};

/// Names that belong together: equal but for a word that says in or out, old or new ("h_in" and
/// "h_out", "state1" and "newState1", "past_k" and "present_k", "c0" and "cn").
bool NamesPair(const std::string& input, const std::string& output);

/// Audio that goes into a part.
struct AudioInput {
  Feature feature;
  std::vector<SourceTensor> tensors;  ///< one, or the real and the imaginary part
  Layout layout;                      ///< of every tensor
  std::int64_t size = 0;              ///< of F
  std::int64_t history = 1;           ///< windows that one evaluation is given, the last is new
};

/// A tensor that one part takes from another.
struct Link {
  std::size_t part;  ///< whose output it is
  SourceTensor output, input;
};

/// The roles of the tensors of one part.
struct Roles {
  std::vector<AudioInput> inputs;  ///< none where everything comes from other parts
  Result result;
  /// One for each class, or real and imaginary part of each, unless a dimension has the classes.
  std::vector<SourceTensor> outputs;
  Layout outputLayout;  ///< of every output
  std::vector<StatePair> states;
  std::vector<SourceTensor> constants;
  std::vector<Link> links;
  std::int64_t outputSize = 0;  ///< of F; a gate has none
  std::int64_t classCount = 1;
  std::int64_t outputHistory = 1;  ///< windows that it returns, of which the last is taken
};

/// Sizes of the audio around the parts, in samples.
struct Framing {
  std::int64_t hop = 0;
  std::int64_t window = 0;     ///< under the window function
  std::int64_t transform = 0;  ///< of a window with what is zero around it; of a frame of samples
  std::int64_t context = 0;
  std::string windowName;
  std::vector<std::int64_t> bands;  ///< bins of each
  Joining joining = Joining::Unknown;
  bool isWindowAssumed = false, isHopAssumed = false;
  /// The adapted model takes spectra, and the library cuts the windows.
  bool isOnSpectra = false;

  std::int64_t Bins() const { return transform / 2 + 1; }
  /// Of a window of the contract.
  std::int64_t Window() const { return 2 * hop; }
};

struct Plan {
  std::vector<SourceModel> sources;
  std::vector<Roles> parts;
  Framing framing;
  std::int64_t lookahead = 0;  ///< windows of the contract
  std::int64_t delayLine = 0;  ///< samples by which the output is held back, to be whole hops late
  bool needsStep = false;      ///< or the one part has the form of a step already
  std::int64_t ClassCount() const { return parts.back().classCount; }
};

/// Roles of every part and the sizes around them.
Plan MakePlan(std::vector<SourceModel> sources, const AdaptRequest& request);

// ---- The adapted model --------------------------------------------------------------------------

/// One window of one channel: the parts between the front end, which makes what they take of the
/// samples, and the back end, which makes samples of what they return. The result is a plan of one
/// part, whose model takes a spectrum, or twice the hop in samples, of which the last half is new,
/// and returns the same of each class: the samples of the previous hop and of this one.
Plan BuildStep(const Plan& plan, const AdaptRequest& request);

/// What the step does not do by itself. Loops keep its states apart: those of a loop over channels
/// get the channels as a first dimension.
struct Loops {
  bool overChannels = false;
  bool overWindows = false;
};

/// The ways of holding the step that its shapes allow, the fastest first. A free dimension is no
/// promise that the model may be used so: the result has to be tried.
std::vector<Loops> PossibleLoops(const Roles& roles);

/// The declared shape of state `pair`, channels in it being 0.
std::vector<std::int64_t> AdaptedStateShape(const StatePair& pair, const Loops& loops);

/// Serialized: input [channels, windows, bins, 2] or [channels, windows, samples], output the same
/// with the classes in front, states by index under names of their own, metadata. With a lookahead
/// of L the model gets all windows but the first L, which it has seen at the evaluation before, and
/// its output, late by L, belongs to the first ones.
std::string BuildAdaptedModel(const Plan& step, const AdaptRequest& request, const Loops& loops);

// ---- The trial ----------------------------------------------------------------------------------

/// Windows of a trial: values in [-8, 8], channels x windows x values.
struct TrialSignal {
  static constexpr std::int64_t channels = 2, windows = 24, perEvaluation = 3;

  explicit TrialSignal(std::int64_t values);

  std::int64_t perWindow;
  std::vector<float> values;
};

/// What the step returns, run window by window: classes x channels x windows x values. Throws the
/// engine's failures.
std::vector<float> RunStep(Platform::Runtime& runtime, const std::string& bytes, const Roles& roles,
                           const TrialSignal& signal);

/// Likewise what the adapted model returns.
std::vector<float> RunAdapted(Platform::Runtime& runtime, const std::string& bytes,
                              const Plan& step, const Loops& loops, const TrialSignal& signal);

struct Comparison {
  double difference = 0;  ///< the greatest; infinity where a value is no finite number
  double peak = 0;        ///< of the step

  bool IsEqual() const { return difference <= 1e-4 * peak; }
};

Comparison Compare(const std::vector<float>& step, const std::vector<float>& adapted);

}  // namespace Orvik::Tesmo::Tool
