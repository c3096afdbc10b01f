// The front and the back end: what stands between a stream of samples and a model.
//
//   samples -> history -> window, transform -> features -> part -> result -> (next part)
//                                                                   |
//   samples <- delay line <- overlap-add <- transform, window <-----+

#include "adapt/graph_writer.h"
#include "command_line/errors.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <numbers>
#include <sstream>
#include <tuple>

namespace Orvik::Tesmo::Tool {
namespace {

using Shape = std::vector<std::int64_t>;

std::size_t Index(std::int64_t i) {
  return static_cast<std::size_t>(i);
}

/// e^(2 pi i k n / N): real part, imaginary part.
struct Roots {
  explicit Roots(std::int64_t size) : size(size) {}
  double Real(std::int64_t k, std::int64_t n) const { return std::cos(Angle(k, n)); }
  double Imaginary(std::int64_t k, std::int64_t n) const { return std::sin(Angle(k, n)); }

private:
  double Angle(std::int64_t k, std::int64_t n) const {
    return 2 * std::numbers::pi * static_cast<double>(k * n % size) / static_cast<double>(size);
  }
  std::int64_t size;
};

/// Of a file of 32-bit floats, with or without the head of NumPy's.
std::vector<double> FileValues(const SourceTensor& tensor, const std::string& path,
                               std::size_t count) {
  const ModelFile file = ReadModelFile(path);
  const std::size_t bytes = count * sizeof(float);
  const std::string_view head(file.bytes.data(), std::min<std::size_t>(file.bytes.size(), 128));
  const bool isNumpy = head.starts_with("\x93NUMPY");
  if (file.bytes.size() < bytes || (!isNumpy && file.bytes.size() != bytes) ||
      (isNumpy && head.find("<f4") == std::string_view::npos) ||
      (isNumpy && head.find("'fortran_order': True") != std::string_view::npos))
    throw Refusal("the file " + path + " does not hold " + std::to_string(count) +
                  " 32-bit floats for the state " + SourceTensorText(tensor) + " (--initial)");
  std::vector<float> values(count);
  std::memcpy(values.data(), file.bytes.data() + file.bytes.size() - bytes, bytes);
  return {values.begin(), values.end()};
}

/// Of the metadata with these keys, one behind the other: numbers between commas or spaces, with or
/// without brackets. What is missing is zero.
std::vector<double> MetadataValues(const SourceTensor& tensor, const onnx::ModelProto& model,
                                   const std::string& keys, std::size_t count) {
  std::vector<double> values;
  for (const std::string& key : SplitAt(keys, '+')) {
    const auto entry = std::ranges::find_if(
        model.metadata_props(), [&](const auto& property) { return property.key() == key; });
    if (entry == model.metadata_props().end())
      throw Refusal("the model has no metadata '" + key + "' (--initial)");
    std::string text = entry->value();
    std::ranges::replace_if(
        text, [](char c) { return std::string_view(",;[]\t\r\n").find(c) != std::string::npos; },
        ' ');
    std::istringstream words(text);
    for (std::string word; words >> word;)
      values.push_back(ParseNumber(word));
  }
  if (values.size() > count)
    throw Refusal("the metadata '" + keys + "' have " + std::to_string(values.size()) +
                  " numbers for the state " + SourceTensorText(tensor) + " (--initial)");
  values.resize(count);
  return values;
}

/// Real and imaginary parts, or frames of samples in `re`.
struct Signal {
  bool isSpectrum = false;
  std::string re, im;
  /// Whether `re` and `im` have a first dimension of classes.
  bool hasClasses = false;
  /// Whether they are late by the lookahead.
  bool isLate = false;
};

/// Values of one window: real ones, or with `im` complex ones.
struct Values {
  std::string re, im;
  std::int64_t size = 0;
};

class StepBuilder {
public:
  StepBuilder(const Plan& plan, const AdaptRequest& request)
      : plan(plan), framing(plan.framing), request(request),
        graph(*model.mutable_graph(), plan.sources[0].opset) {
    const onnx::ModelProto& first = plan.sources[0].proto;
    model.set_ir_version(first.ir_version());
    *model.mutable_metadata_props() = first.metadata_props();
    model.mutable_graph()->set_name("step");
    for (const SourceModel& source : plan.sources) {
      ImportDomains(source.proto);
      model.mutable_functions()->MergeFrom(source.proto.functions());
    }
  }

  Plan Build() {
    GraphWriter::Declare(*model.mutable_graph()->add_input(), "audio", Platform::TensorKind::Float);
    DeclareShape(*model.mutable_graph()->mutable_input(0), AudioShape(false), {});
    Signal signal = source = framing.isOnSpectra ? GivenSpectrum() : GivenSamples();
    for (std::size_t i = 0; i < plan.parts.size(); ++i)
      signal = RunPart(i, signal);
    const std::string out = framing.isOnSpectra ? Parts(signal, 2) : BackEnd(signal);
    graph.Alias(out, "result");
    onnx::ValueInfoProto output;
    GraphWriter::Declare(output, "result", Platform::TensorKind::Float);
    DeclareShape(output, AudioShape(true), {});
    auto& outputs = *model.mutable_graph()->mutable_output();
    *outputs.Add() = output;
    for (const auto& feature : stateOutputs)
      *outputs.Add() = feature;
    return Finished();
  }

private:
  // ---- The graph's inputs and outputs

  void ImportDomains(const onnx::ModelProto& other) {
    for (const auto& imported : other.opset_import())
      if (std::ranges::none_of(model.opset_import(),
                               [&](const auto& own) { return own.domain() == imported.domain(); }))
        *model.add_opset_import() = imported;
  }

  Shape AudioShape(bool isOutput) const {
    Shape shape;
    if (isOutput) shape.push_back(plan.ClassCount());
    shape.push_back(framing.isOnSpectra ? framing.Bins() : framing.Window());
    if (framing.isOnSpectra) shape.push_back(2);
    return shape;
  }

  Plan Finished() {
    Plan step;
    step.framing = framing;
    step.lookahead = plan.lookahead;
    SourceModel source;
    source.path = plan.sources[0].path;
    source.opset = plan.sources[0].opset;
    source.proto = model;
    Roles roles;
    AudioInput& audio = roles.inputs.emplace_back();
    audio.feature.kind = framing.isOnSpectra ? Feature::Kind::Spectrum : Feature::Kind::Samples;
    roles.result.kind = framing.isOnSpectra ? Result::Kind::Spectrum : Result::Kind::Samples;
    audio.tensors = {Tensor("audio", Platform::TensorKind::Float, AudioShape(false))};
    roles.outputs = {Tensor("result", Platform::TensorKind::Float, AudioShape(true))};
    audio.layout = framing.isOnSpectra ? "FC" : "F";
    roles.outputLayout = "K" + audio.layout;
    roles.states = states;
    audio.size = roles.outputSize = AudioShape(false)[0];
    roles.classCount = plan.ClassCount();
    step.parts = {roles};
    step.sources = {source};
    return step;
  }

  static SourceTensor Tensor(const std::string& name, std::uint32_t kind, const Shape& shape) {
    SourceTensor tensor{name, kind, true, {}};
    for (const std::int64_t size : shape)
      tensor.shape.push_back({size, {}});
    return tensor;
  }

  /// A new state; what is in it at the beginning of the window.
  std::string State(const std::string& name, const Shape& shape,
                    std::uint32_t kind = Platform::TensorKind::Float) {
    onnx::ValueInfoProto& feature = *model.mutable_graph()->add_input();
    GraphWriter::Declare(feature, name, kind);
    DeclareShape(feature, shape, {});
    states.push_back({Tensor(name, kind, shape), Tensor(name + "/next", kind, shape)});
    return name;
  }
  /// What is in the state called `name` at the end.
  void SetState(const std::string& name, const std::string& value) {
    graph.Alias(value, name + "/next");
    onnx::ValueInfoProto feature = *std::ranges::find_if(
        model.graph().input(), [&](const auto& input) { return input.name() == name; });
    feature.set_name(name + "/next");
    stateOutputs.push_back(feature);
  }

  /// What is in a new state whose first value is `start`: states of the library start at zero.
  std::string StateFrom(const std::string& name, const Shape& shape,
                        const onnx::TensorProto& start) {
    if (started.empty()) {
      started = State("started", {1}, Platform::TensorKind::Boolean);
      const SourceTensor flag = Tensor("always", Platform::TensorKind::Boolean, {1});
      SetState(started, graph.Constant(FilledTensor(flag, {1}, "")));
    }
    return graph.Apply("Where",
                       {started, State(name, shape, static_cast<std::uint32_t>(start.data_type())),
                        graph.Constant(start)});
  }

  /// The last `count` values of `x`, which has `shape`, before this one and this one, along a new
  /// first dimension.
  std::string WithPast(const std::string& name, const std::string& x, Shape shape,
                       std::int64_t count) {
    shape.insert(shape.begin(), count);
    const std::string state = State(name, shape);
    std::string all = graph.Concat({state, graph.Unsqueeze(x, {0})}, 0);
    SetState(state, graph.DropFirst(all, 0, 1));
    return all;
  }

  // ---- The front end

  Signal GivenSpectrum() {
    return {true, graph.Take("audio", 1, 0), graph.Take("audio", 1, 1), false};
  }

  /// The window of the contract brings one hop of new samples; what the model's own window needs
  /// before those is a state.
  Signal GivenSamples() {
    std::string frame = graph.Slice("audio", 0, framing.hop, framing.Window());
    const std::int64_t size = framing.transform + framing.context;
    if (size > framing.hop) {
      const std::string past = State("history", {size - framing.hop});
      frame = graph.Concat({past, frame}, 0);
      SetState("history", graph.Slice(frame, 0, framing.hop, size));
    }
    withContext = frame;
    given = framing.context == 0 ? frame : graph.Slice(frame, 0, framing.context, size);
    return {false, given, {}, false};
  }

  /// Whether the operator DFT is faster than a matrix product. The engine has a fast one for powers
  /// of two alone.
  bool HasFastTransform() const {
    const auto size = static_cast<std::uint64_t>(framing.transform);
    return plan.sources[0].opset >= 17 && size >= 1024 && std::has_single_bit(size);
  }

  /// Of [K, N] real values: [K, N / 2 + 1] real and imaginary parts.
  std::pair<std::string, std::string> FastTransform(const std::string& x) {
    onnx::NodeProto& node = graph.Node("DFT", {graph.Unsqueeze(x, {2})});
    GraphWriter::SetInt(node, "onesided", 1);
    const std::string both = graph.FreshName();
    node.add_output(both);
    return {graph.Take(both, 2, 0), graph.Take(both, 2, 1)};
  }

  /// [K, N] of [K, N / 2 + 1] spectra, times N, by a transform forward: what Hartley's transform
  /// makes of the real less the imaginary part, which is real as the result is.
  std::string FastInverse(const std::string& re, const std::string& im) {
    const std::int64_t bins = framing.Bins();
    std::vector<double> inner(Index(bins), 1);
    inner.front() = inner.back() = 0;
    std::vector<std::int64_t> mirrored;
    for (std::int64_t k = bins - 2; k > 0; --k)
      mirrored.push_back(k);
    const auto whole = [&](const std::string& x, const std::string& y) {
      const std::string sum = graph.Apply("Add", {x, y});
      return graph.Concat({graph.Apply("Sub", {x, y}), graph.Gather(sum, 1, mirrored)}, 1);
    };
    const auto [cosines, sines] =
        FastTransform(whole(re, Multiply(im, graph.Floats(inner, {bins}))));
    return whole(cosines, sines);
  }

  /// The transform of a frame. The window is in its matrix.
  Signal Transform(const Signal& frames, bool isGiven) {
    const std::int64_t size = framing.transform, bins = framing.Bins();
    const std::vector<double> window =
        MakeWindow(isGiven ? framing.windowName : "rectangular",
                   Index(isGiven ? framing.window : size), Index(size));
    if (HasFastTransform()) {
      const std::string windowed = Multiply(frames.re, graph.Floats(window, {size}));
      const auto [re, im] = FastTransform(graph.Unsqueeze(windowed, {0}));
      return {true, graph.Squeeze(re, {0}), graph.Squeeze(im, {0}), false};
    }
    const Roots roots(size);
    std::vector<double> matrix(Index(size * 2 * bins));
    for (std::int64_t n = 0; n < size; ++n)
      for (std::int64_t k = 0; k < bins; ++k) {
        matrix[Index(n * 2 * bins + k)] = window[Index(n)] * roots.Real(k, n);
        matrix[Index(n * 2 * bins + bins + k)] = -window[Index(n)] * roots.Imaginary(k, n);
      }
    const std::string both = graph.Apply(
        "MatMul", {graph.Reshape(frames.re, {1, size}), graph.Floats(matrix, {size, 2 * bins})});
    return {true, graph.Reshape(graph.Slice(both, 1, 0, bins), {bins}),
            graph.Reshape(graph.Slice(both, 1, bins, 2 * bins), {bins}), false};
  }

  std::string Multiply(const std::string& a, const std::string& b) {
    return graph.Apply("Mul", {a, b});
  }
  std::string Scale(const std::string& x, double factor) {
    return factor == 1 ? x : Multiply(x, graph.Floats({factor}));
  }

  /// [F, 2], or with classes [K, F, 2]: `last` is where the parts go.
  std::string Parts(const Signal& spectrum, std::int64_t last) {
    return graph.Concat(
        {graph.Unsqueeze(spectrum.re, {last}), graph.Unsqueeze(spectrum.im, {last})}, last);
  }

  /// [F] or [F, 2] of what the part is given for one window.
  std::string Features(const Feature& feature, const Signal& spectrum, const std::string& name) {
    Values x{Scale(spectrum.re, request.scale), Scale(spectrum.im, request.scale), framing.Bins()};
    std::vector<FeatureStep> steps = feature.steps;
    if (feature.kind != Feature::Kind::Spectrum) {
      x = {feature.kind == Feature::Kind::Power ? Power(x) : graph.Apply("Sqrt", {Power(x)}),
           {},
           x.size};
      if (request.normalisation) steps.push_back(*request.normalisation);
    }
    for (std::size_t i = 0; i < steps.size(); ++i)
      x = Changed(x, steps[i], name + "/level" + std::to_string(i + 1));
    return x.im.empty() ? x.re : Parts({true, x.re, x.im}, 1);
  }

  std::string Power(const Values& x) {
    return graph.Apply("Add", {Multiply(x.re, x.re), Multiply(x.im, x.im)});
  }

  Values Changed(const Values& x, const FeatureStep& step, const std::string& name) {
    using enum FeatureStep::Kind;
    const auto onParts = [&](const auto& change, std::int64_t size) {
      return Values{change(x.re), x.im.empty() ? std::string() : change(x.im), size};
    };
    switch (step.kind) {
    case Log:
    case LogOfSum:
      return {graph.Apply("Log", {graph.Apply(step.kind == Log ? "Max" : "Add",
                                              {x.re, graph.Floats({step.floor})})}),
              {},
              x.size};
    case Times:
      return onParts([&](const std::string& part) { return Scale(part, step.factor); }, x.size);
    case Bands:
      return {MeansOfBands(x.re), {}, std::ssize(framing.bands)};
    case Lowest:
      return onParts([&](const std::string& part) { return graph.Slice(part, 0, 0, step.count); },
                     step.count);
    case Fixed:
      return {graph.Apply("Div", {graph.Apply("Sub", {x.re, OfEach(step.mean, x.size)}),
                                  OfEach(step.deviation, x.size)}),
              {},
              x.size};
    case RunningMean:
      return {graph.Apply("Sub", {x.re, Running(x.re, step, x.size, name)}), {}, x.size};
    case RunningLevel:
    case RunningRoot:
      break;
    }
    const std::string magnitude =
        x.im.empty() ? graph.Apply("Abs", {x.re}) : graph.Apply("Sqrt", {Power(x)});
    // In silence the level falls to zero, and zero by zero would stay in the states for ever.
    std::string level =
        graph.Apply("Max", {Running(magnitude, step, x.size, name), graph.Floats({1e-20})});
    if (step.kind == RunningRoot) level = graph.Apply("Sqrt", {level});
    return onParts(
        [&](const std::string& part) {
          return graph.Apply("Div", {part, level});
        },
        x.size);
  }

  /// One value, or one for each of `size`.
  std::string OfEach(const std::vector<double>& values, std::int64_t size) {
    if (values.size() == 1) return graph.Floats(values);
    if (values.size() != Index(size))
      throw Refusal("the rule 'fixed' (--normalise, --in) has " + std::to_string(values.size()) +
                    " values for " + std::to_string(size) + " bins");
    return graph.Floats(values, {size});
  }

  std::string MeansOfBands(const std::string& x) {
    const std::int64_t bins = framing.Bins(), bands = std::ssize(framing.bands);
    std::vector<double> matrix(Index(bins * bands));
    std::int64_t bin = 0;
    for (std::int64_t band = 0; band < bands; ++band)
      for (const std::int64_t width = framing.bands[Index(band)], end = bin + width; bin < end;
           ++bin)
        matrix[Index(bin * bands + band)] = 1 / static_cast<double>(width);
    const std::string row = graph.Reshape(x, {1, bins});
    return graph.Reshape(graph.Apply("MatMul", {row, graph.Floats(matrix, {bins, bands})}),
                         {bands});
  }

  /// s = keep * s + (1 - keep) * x, written as s + (1 - keep) * (x - s), which rounds less.
  std::string Running(const std::string& x, const FeatureStep& step, std::int64_t size,
                      const std::string& name) {
    std::vector<double> start(Index(size), step.first);
    for (std::int64_t i = 1; i < size; ++i)
      start[Index(i)] +=
          (step.last - step.first) * static_cast<double>(i) / static_cast<double>(size - 1);
    const bool isZero = step.first == 0 && step.last == 0;
    const SourceTensor tensor = Tensor(name, Platform::TensorKind::Float, {size});
    const std::string state =
        isZero ? State(name, {size}) : StateFrom(name, {size}, FilledTensor(tensor, start, ""));
    std::string next =
        graph.Apply("Add", {state, Scale(graph.Apply("Sub", {x, state}), 1 - step.keep)});
    SetState(name, next);
    return next;
  }

  /// One row for each new sample: the samples up to it.
  std::string Rows() {
    const std::int64_t width = framing.context + 1;
    std::vector<std::int64_t> places;
    for (std::int64_t n = 0; n < framing.hop; ++n)
      for (std::int64_t i = 0; i < width; ++i)
        places.push_back(n + i);
    const std::string flat = graph.Apply("Gather", {withContext, graph.Int64s(places)});
    return graph.Reshape(flat, {framing.hop, width});
  }

  // ---- The parts

  Signal RunPart(std::size_t index, const Signal& signal) {
    const Roles& roles = plan.parts[index];
    const std::string prefix = Prefix(index);
    Signal spectrum = signal;
    Signal frame = signal;
    const bool needsSpectrum =
        IsMask(roles.result) || std::ranges::any_of(roles.inputs, [](const AudioInput& input) {
          return IsSpectral(input.feature);
        });
    if (!signal.isSpectrum && needsSpectrum) spectrum = Transform(signal, index == 0);
    if (index == 0 && needsSpectrum) source = spectrum;
    std::vector<FedAudio> fed;
    for (const AudioInput& input : roles.inputs) {
      FedAudio one{{}, "F"};
      if (input.feature.kind == Feature::Kind::Rows) {
        one = {Rows(), "RF"};
      } else if (!IsSpectral(input.feature)) {
        if (signal.isSpectrum && frame.isSpectrum) frame = Frames(signal, false);
        one.audio = index > 0             ? frame.re
                    : framing.context > 0 ? withContext
                                          : UnderWindow(frame.re);
      } else {
        one.audio = Features(input.feature, spectrum, prefix + input.tensors[0].name);
        if (input.feature.kind == Feature::Kind::Spectrum) one.axes = "FC";
      }
      if (input.history > 1) AddHistory(one, input, prefix + input.tensors[0].name + "/windows");
      fed.push_back(one);
    }
    const std::string result = Embed(index, prefix, fed);
    if (roles.result.kind == Result::Kind::None) return signal;
    return Apply(roles, result, spectrum, frame, index);
  }

  std::string Prefix(std::size_t index) const {
    return plan.parts.size() == 1 ? "inner/" : "inner" + std::to_string(index + 1) + "/";
  }

  std::string UnderWindow(const std::string& frame) {
    if (framing.windowName == "rectangular" && framing.window == framing.transform) return frame;
    const std::vector<double> window =
        MakeWindow(framing.windowName, Index(framing.window), Index(framing.transform));
    return Multiply(frame, graph.Floats(window, {framing.transform}));
  }

  /// The last windows along a first dimension.
  void AddHistory(FedAudio& fed, const AudioInput& input, const std::string& name) {
    Shape shape = {input.size};
    if (fed.axes == "FC") shape.push_back(2);
    fed.audio = WithPast(name, fed.audio, shape, input.history - 1);
    fed.axes.insert(0, 1, 'T');
  }

  static std::string OutAxes(const Roles& roles) {
    const bool isComplex = roles.result.kind == Result::Kind::Spectrum ||
                           roles.result.kind == Result::Kind::ComplexMask;
    return std::string(roles.outputHistory > 1 ? "T" : "") +
           (roles.result.kind == Result::Kind::Gate ? "" : "F") +
           (Has(roles.outputLayout, 'O') ? "O" : "") + (isComplex ? "C" : "");
  }

  /// Classes in front: [K, F], [K, F, 2] or, of a gate, [K].
  std::string Embed(std::size_t index, const std::string& prefix,
                    const std::vector<FedAudio>& fed) {
    const Roles& roles = plan.parts[index];
    std::vector<std::string> names, given;
    for (const StatePair& pair : roles.states) {
      Shape shape;
      for (const SourceDimension& dimension : pair.input.shape)
        shape.push_back(std::max<std::int64_t>(dimension.size, 1));
      names.push_back(prefix + pair.input.name + "/state");
      const auto value =
          std::ranges::find(request.initial, pair.input.name, &NamePairs::value_type::first);
      given.push_back(value == request.initial.end()
                          ? State(names.back(), shape, pair.input.kind)
                          : StateFrom(names.back(), shape,
                                      InitialTensor(pair.input, shape, value->second, index)));
    }
    for (const SourceTensor& constant : roles.constants) {
      const auto value =
          std::ranges::find(request.constants, constant.name, &NamePairs::value_type::first);
      onnx::TensorProto tensor = FilledTensor(constant, {ParseNumber(value->second)}, "--set");
      tensor.set_name(prefix + tensor.name());
      *model.mutable_graph()->add_initializer() = tensor;
    }
    for (const Link& link : roles.links)
      graph.Alias(Prefix(link.part) + link.output.name, prefix + link.input.name);
    const PartValues out = WritePart(graph, Prefixed(plan.sources[index], prefix), prefix, roles,
                                     fed, given, OutAxes(roles));
    for (std::size_t i = 0; i < names.size(); ++i)
      SetState(names[i], out.states[i]);
    return roles.outputHistory > 1 ? graph.Take(out.audio, 1, roles.outputHistory - 1) : out.audio;
  }

  /// The first value of a state, as --initial says it: a number, metadata:KEY, or a file.
  onnx::TensorProto InitialTensor(const SourceTensor& tensor, const Shape& shape,
                                  const std::string& text, std::size_t index) const {
    std::int64_t count = 1;
    for (const std::int64_t size : shape)
      count *= size;
    constexpr std::string_view mark = "metadata:";
    std::error_code ignored;
    std::vector<double> values;
    if (text.starts_with(mark))
      values =
          MetadataValues(tensor, plan.sources[index].proto, text.substr(mark.size()), Index(count));
    else if (std::filesystem::is_regular_file(text, ignored))
      values = FileValues(tensor, text, Index(count));
    else
      values = {ParseNumber(text)};
    return FilledTensor(tensor, values, "--initial");
  }

  /// The signal that the result makes, with classes unless another part follows.
  Signal Apply(const Roles& roles, const std::string& result, const Signal& spectrum,
               const Signal& frame, std::size_t index) {
    const bool isLast = index + 1 == plan.parts.size();
    Signal out;
    out.isSpectrum = IsSpectral(roles.result);
    if (roles.result.kind == Result::Kind::Samples) {
      out.re = result;
    } else if (roles.result.kind == Result::Kind::Gate) {
      const Signal gated = frame.isSpectrum || frame.re.empty() ? Signal{false, given, {}} : frame;
      out.re = Multiply(graph.Unsqueeze(result, {1}), NewSamples(gated.re));
    } else if (roles.result.kind == Result::Kind::Spectrum) {
      out.re = Scale(graph.Take(result, 2, 0), 1 / request.scale);
      out.im = Scale(graph.Take(result, 2, 1), 1 / request.scale);
    } else {
      out = Masked(roles, result, Late(spectrum, Prefix(index)), Prefix(index));
    }
    out.hasClasses = isLast;
    if (!isLast) {
      out.re = graph.Squeeze(out.re, {0});
      if (out.isSpectrum) out.im = graph.Squeeze(out.im, {0});
    }
    return out;
  }

  /// The spectrum of the window that a mask is for: that of --lookahead windows before.
  Signal Late(const Signal& spectrum, const std::string& prefix) {
    const auto late = static_cast<std::int64_t>(request.lookahead);
    if (late == 0 || spectrum.isLate) return spectrum;
    const std::string windows =
        WithPast(prefix + "late", Parts(spectrum, 1), {framing.Bins(), 2}, late);
    const std::string first = graph.Take(windows, 0, 0);
    return {true, graph.Take(first, 1, 0), graph.Take(first, 1, 1), false, true};
  }

  Signal Masked(const Roles& roles, const std::string& result, const Signal& late,
                const std::string& prefix) {
    const std::int64_t lowest = roles.result.lowest, bins = framing.Bins();
    const auto low = [&](const std::string& x) {
      return lowest > 0 ? graph.Slice(x, 0, 0, lowest) : x;
    };
    Signal out{true, {}, {}, true, late.isLate};
    if (roles.result.kind == Result::Kind::Mask) {
      const std::string mask = roles.result.isOfBands ? OfBins(result) : result;
      out.re = Multiply(mask, low(late.re));
      out.im = Multiply(mask, low(late.im));
    } else if (roles.result.taps > 0) {
      std::tie(out.re, out.im) = Filtered(roles.result, result, prefix);
    } else {
      std::tie(out.re, out.im) = ComplexProduct(graph.Take(result, 2, 0), graph.Take(result, 2, 1),
                                                low(late.re), low(late.im));
    }
    if (lowest == 0 || lowest == bins) return out;
    const auto withRest = [&](const std::string& x, const std::string& all) {
      return graph.Concat({x, graph.Unsqueeze(graph.Slice(all, 0, lowest, bins), {0})}, 1);
    };
    out.re = withRest(out.re, late.re);
    out.im = withRest(out.im, late.im);
    return out;
  }

  std::pair<std::string, std::string> ComplexProduct(const std::string& re, const std::string& im,
                                                     const std::string& otherRe,
                                                     const std::string& otherIm) {
    return {graph.Apply("Sub", {Multiply(re, otherRe), Multiply(im, otherIm)}),
            graph.Apply("Add", {Multiply(re, otherIm), Multiply(im, otherRe)})};
  }

  /// [K, bands] to [K, bins]
  std::string OfBins(const std::string& mask) {
    std::vector<std::int64_t> places;
    for (std::size_t band = 0; band < framing.bands.size(); ++band)
      places.insert(places.end(), Index(framing.bands[band]), static_cast<std::int64_t>(band));
    return graph.Gather(mask, 1, places);
  }

  /// Each bin of the windows that came in, from the first tap on, times its factors, added up.
  std::pair<std::string, std::string> Filtered(const Result& rule, const std::string& result,
                                               const std::string& prefix) {
    const std::int64_t bins = rule.lowest > 0 ? rule.lowest : framing.Bins();
    const std::string factors = graph.Reshape(result, {plan.ClassCount(), bins, rule.taps, 2});
    const std::int64_t past =
        static_cast<std::int64_t>(request.lookahead) + rule.taps - 1 - rule.ahead;
    if (!source.isSpectrum) source = Transform(source, true);
    std::string windows = Parts(source, 1);
    if (bins < framing.Bins()) windows = graph.Slice(windows, 0, 0, bins);
    windows = past > 0 ? WithPast(prefix + "taps", windows, {bins, 2}, past)
                       : graph.Unsqueeze(windows, {0});
    windows = graph.Transpose(graph.Slice(windows, 0, 0, rule.taps), {1, 0, 2});
    const auto [re, im] = ComplexProduct(graph.Take(factors, 3, 0), graph.Take(factors, 3, 1),
                                         graph.Take(windows, 2, 0), graph.Take(windows, 2, 1));
    return {graph.Sum(re, 2), graph.Sum(im, 2)};
  }

  /// A gate whose samples are finished holds for the new ones of the window alone.
  std::string NewSamples(const std::string& frame) {
    if (framing.joining != Joining::Finished || framing.hop == framing.transform) return frame;
    return graph.Slice(frame, 0, framing.transform - framing.hop, framing.transform);
  }

  // ---- The back end

  /// Frames of a spectrum, under the synthesis window where they are to be added up so.
  Signal Frames(const Signal& spectrum, bool isLast) {
    const std::int64_t size = framing.transform, bins = framing.Bins();
    std::vector<double> window(Index(size), 1);
    if (isLast && framing.joining == Joining::Windowed)
      window = SynthesisWindow(MakeWindow(framing.windowName, Index(framing.window), Index(size)),
                               Index(framing.hop));
    if (HasFastTransform()) {
      for (double& value : window)
        value /= static_cast<double>(size);
      const auto row = [&](const std::string& x) {
        return spectrum.hasClasses ? x : graph.Unsqueeze(x, {0});
      };
      const std::string frames =
          Multiply(FastInverse(row(spectrum.re), row(spectrum.im)), graph.Floats(window, {size}));
      return {false,
              spectrum.hasClasses ? frames : graph.Squeeze(frames, {0}),
              {},
              spectrum.hasClasses};
    }
    const Roots roots(size);
    std::vector<double> matrix(Index(2 * bins * size));
    for (std::int64_t k = 0; k < bins; ++k) {
      const bool isAlone = k == 0 || 2 * k == size;
      const double weight = (isAlone ? 1.0 : 2.0) / static_cast<double>(size);
      for (std::int64_t n = 0; n < size; ++n) {
        matrix[Index(k * size + n)] = weight * window[Index(n)] * roots.Real(k, n);
        matrix[Index((bins + k) * size + n)] =
            isAlone ? 0 : -weight * window[Index(n)] * roots.Imaginary(k, n);
      }
    }
    const std::int64_t axis = spectrum.hasClasses ? 1 : 0;
    std::string both = graph.Concat({spectrum.re, spectrum.im}, axis);
    if (!spectrum.hasClasses) both = graph.Unsqueeze(both, {0});
    std::string frames = graph.Apply("MatMul", {both, graph.Floats(matrix, {2 * bins, size})});
    if (!spectrum.hasClasses) frames = graph.Squeeze(frames, {0});
    return {false, frames, {}, spectrum.hasClasses};
  }

  /// [K, 2 * hop] of the contract: the samples of the previous hop and of this one.
  std::string BackEnd(const Signal& signal) {
    const std::int64_t hop = framing.hop, classes = plan.ClassCount();
    std::string y = signal.re;
    if (signal.isSpectrum) {
      y = Frames(signal, true).re;
    } else if (framing.joining == Joining::Windowed) {
      const std::vector<double> window = SynthesisWindow(
          MakeWindow(framing.windowName, Index(framing.window), Index(framing.transform)),
          Index(hop));
      y = Multiply(y, graph.Floats(window, {framing.transform}));
    }
    if (framing.joining != Joining::Finished) y = OverlapAdd(y);
    const std::int64_t kept = plan.delayLine + hop;
    const std::string state = State("delay", {classes, kept});
    const std::string line = graph.Concat({state, y}, 1);
    SetState(state, graph.DropFirst(line, 1, hop));
    return graph.Slice(line, 1, 0, framing.Window());
  }

  /// One hop of finished samples. Those that lie where the window is zero are not waited for.
  std::string OverlapAdd(const std::string& frames) {
    const std::int64_t hop = framing.hop, size = framing.transform, classes = plan.ClassCount();
    std::string sum = frames;
    if (size > hop) {
      const std::string state = State("overlap", {classes, size - hop});
      const std::string zeros =
          graph.Floats(std::vector<double>(Index(classes * hop)), {classes, hop});
      sum = graph.Apply("Add", {frames, graph.Concat({state, zeros}, 1)});
      SetState(state, graph.DropFirst(sum, 1, hop));
    }
    const std::int64_t start = (size - framing.window) / 2;
    return graph.Slice(sum, 1, start, start + hop);
  }

  const Plan& plan;
  Framing framing;
  const AdaptRequest& request;
  onnx::ModelProto model;
  GraphWriter graph;
  std::vector<StatePair> states;
  std::vector<onnx::ValueInfoProto> stateOutputs;
  std::string given, withContext;  ///< the new window, without and with what is before it
  Signal source;                   ///< what the first part is given
  std::string started;             ///< the state that tells whether other states hold something
};

}  // namespace

Plan BuildStep(const Plan& plan, const AdaptRequest& request) {
  return StepBuilder(plan, request).Build();
}

}  // namespace Orvik::Tesmo::Tool
