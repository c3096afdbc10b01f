// The front and the back end: what stands between a stream of samples and a model.
//
//   samples -> history -> window, transform -> feature -> part -> result -> (next part)
//                                                                   |
//   samples <- delay line <- overlap-add <- transform, window <-----+

#include "adapt/graph_writer.h"
#include "command_line/errors.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <numbers>

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

/// Values of --initial: a number, or a file of 32-bit floats, with or without the head of NumPy's.
std::vector<double> InitialValues(const SourceTensor& tensor, const std::string& text,
                                  std::size_t count) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(text, ignored))
    return std::vector<double>(count, ParseNumber(text));
  const ModelFile file = ReadModelFile(text);
  const std::size_t bytes = count * sizeof(float);
  const std::string_view head(file.bytes.data(), std::min<std::size_t>(file.bytes.size(), 128));
  const bool isNumpy = head.starts_with("\x93NUMPY");
  if (file.bytes.size() < bytes || (!isNumpy && file.bytes.size() != bytes) ||
      (isNumpy && head.find("<f4") == std::string_view::npos) ||
      (isNumpy && head.find("'fortran_order': True") != std::string_view::npos))
    throw Refusal("the file " + text + " does not hold " + std::to_string(count) +
                  " 32-bit floats for the state " + SourceTensorText(tensor) + " (--initial)");
  std::vector<float> values(count);
  std::memcpy(values.data(), file.bytes.data() + file.bytes.size() - bytes, bytes);
  return {values.begin(), values.end()};
}

/// Real and imaginary parts, or frames of samples in `re`.
struct Signal {
  bool isSpectrum = false;
  std::string re, im;
  /// Whether `re` and `im` have a first dimension of classes.
  bool hasClasses = false;
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
    Signal signal = framing.isOnSpectra ? GivenSpectrum() : GivenSamples();
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
    roles.feature.kind = framing.isOnSpectra ? Feature::Kind::Spectrum : Feature::Kind::Samples;
    roles.result = framing.isOnSpectra ? Result::Spectrum : Result::Samples;
    roles.inputs = {Tensor("audio", Platform::TensorKind::Float, AudioShape(false))};
    roles.outputs = {Tensor("result", Platform::TensorKind::Float, AudioShape(true))};
    roles.inputLayout = framing.isOnSpectra ? "FC" : "F";
    roles.outputLayout = "K" + roles.inputLayout;
    roles.states = states;
    roles.inputSize = roles.outputSize = AudioShape(false)[0];
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

  /// The transform of a frame. The window is in its matrix.
  Signal Transform(const Signal& frames, bool isGiven) {
    const std::int64_t size = framing.transform, bins = framing.Bins();
    const std::vector<double> window =
        MakeWindow(isGiven ? framing.windowName : "rectangular",
                   Index(isGiven ? framing.window : size), Index(size));
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
    Signal scaled = spectrum;
    scaled.re = Scale(spectrum.re, request.scale);
    scaled.im = Scale(spectrum.im, request.scale);
    if (feature.kind == Feature::Kind::Spectrum) return Parts(scaled, 1);
    std::string x =
        graph.Apply("Add", {Multiply(scaled.re, scaled.re), Multiply(scaled.im, scaled.im)});
    if (feature.kind == Feature::Kind::Magnitude) x = graph.Apply("Sqrt", {x});
    if (feature.hasLog)
      x = graph.Apply("Log", {graph.Apply(feature.isFloorAdded ? "Add" : "Max",
                                          {x, graph.Floats({feature.floor})})});
    return Normalised(x, name);
  }

  std::string Normalised(const std::string& x, const std::string& name) {
    const Normalisation& rule = request.normalisation;
    const auto constant = [&](const std::vector<double>& values) {
      if (values.size() == 1) return graph.Floats(values);
      if (values.size() != Index(framing.Bins()))
        throw Refusal("--normalise has " + std::to_string(values.size()) + " values for " +
                      std::to_string(framing.Bins()) + " bins");
      return graph.Floats(values, {framing.Bins()});
    };
    if (rule.kind == Normalisation::Kind::None) return x;
    if (rule.kind == Normalisation::Kind::Fixed)
      return graph.Apply("Div",
                         {graph.Apply("Sub", {x, constant(rule.mean)}), constant(rule.deviation)});
    // The state is the difference from its first value, since states start at zero.
    const std::string state = State(name + "level", {framing.Bins()});
    const std::string start = graph.Floats({rule.start});
    const std::string next = graph.Apply(
        "Add", {Scale(graph.Apply("Sub", {x, start}), 1 - rule.keep), Scale(state, rule.keep)});
    SetState(state, next);
    const std::string level = graph.Apply("Add", {next, start});
    return graph.Apply(rule.kind == Normalisation::Kind::RunningMean ? "Sub" : "Div", {x, level});
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
    const std::string prefix =
        plan.parts.size() == 1 ? "inner/" : "inner" + std::to_string(index + 1) + "/";
    Signal spectrum = signal;
    Signal frame = signal;
    std::string audio, axes = "F";
    if (roles.feature.kind == Feature::Kind::Rows) {
      audio = Rows();
      axes = "RF";
    } else if (!IsSpectral(roles.feature)) {
      if (signal.isSpectrum) frame = Frames(signal, false);
      audio = index > 0 ? frame.re : framing.context > 0 ? withContext : UnderWindow(frame.re);
    }
    if (!signal.isSpectrum && (IsSpectral(roles.feature) || IsMask(roles.result)))
      spectrum = Transform(signal, index == 0);
    if (IsSpectral(roles.feature)) {
      audio = Features(roles.feature, spectrum, prefix);
      if (roles.feature.kind == Feature::Kind::Spectrum) axes = "FC";
    }
    if (roles.history > 1) audio = History(audio, roles, prefix, axes);
    const std::string result = Embed(index, prefix, audio, axes);
    return Apply(roles, result, spectrum, frame, index);
  }

  static bool IsMask(Result result) {
    return result == Result::Mask || result == Result::ComplexMask;
  }

  std::string UnderWindow(const std::string& frame) {
    if (framing.windowName == "rectangular" && framing.window == framing.transform) return frame;
    const std::vector<double> window =
        MakeWindow(framing.windowName, Index(framing.window), Index(framing.transform));
    return Multiply(frame, graph.Floats(window, {framing.transform}));
  }

  /// The last windows along a first dimension.
  std::string History(const std::string& audio, const Roles& roles, const std::string& prefix,
                      std::string& axes) {
    Shape shape = {roles.history - 1, roles.inputSize};
    if (axes == "FC") shape.push_back(2);
    const std::string state = State(prefix + "windows", shape);
    std::string all = graph.Concat({state, graph.Unsqueeze(audio, {0})}, 0);
    SetState(state, graph.DropFirst(all, 0, 1));
    axes.insert(0, 1, 'T');
    return all;
  }

  static std::string OutAxes(const Roles& roles) {
    const bool isComplex = roles.result == Result::Spectrum || roles.result == Result::ComplexMask;
    return std::string(roles.outputHistory > 1 ? "T" : "") +
           (roles.result == Result::Gate ? "" : "F") + (isComplex ? "C" : "");
  }

  /// Classes in front: [K, F], [K, F, 2] or, of a gate, [K].
  std::string Embed(std::size_t index, const std::string& prefix, const std::string& audio,
                    const std::string& axes) {
    const Roles& roles = plan.parts[index];
    PartValues in{audio, {}};
    std::vector<std::string> names, starts;
    for (const StatePair& pair : roles.states) {
      Shape shape;
      for (const SourceDimension& dimension : pair.input.shape)
        shape.push_back(std::max<std::int64_t>(dimension.size, 1));
      names.push_back(State(prefix + pair.input.name + "/state", shape, pair.input.kind));
      starts.push_back(Start(pair.input, shape));
      in.states.push_back(
          starts.back().empty() ? names.back() : graph.Apply("Add", {names.back(), starts.back()}));
    }
    for (const SourceTensor& constant : roles.constants) {
      const auto value =
          std::ranges::find(request.constants, constant.name, &NamePairs::value_type::first);
      onnx::TensorProto tensor = ConstantTensor(constant, value->second);
      tensor.set_name(prefix + tensor.name());
      *model.mutable_graph()->add_initializer() = tensor;
    }
    const PartValues out = WritePart(graph, Prefixed(plan.sources[index], prefix), prefix, roles,
                                     in, axes, OutAxes(roles));
    for (std::size_t i = 0; i < names.size(); ++i)
      SetState(names[i],
               starts[i].empty() ? out.states[i] : graph.Apply("Sub", {out.states[i], starts[i]}));
    return roles.outputHistory > 1 ? graph.Take(out.audio, 1, roles.outputHistory - 1) : out.audio;
  }

  /// The first value of a state that --initial names; else nothing. Such a state is kept as the
  /// difference from it, since states start at zero.
  std::string Start(const SourceTensor& tensor, const Shape& shape) {
    const auto value =
        std::ranges::find(request.initial, tensor.name, &NamePairs::value_type::first);
    if (value == request.initial.end()) return {};
    if (tensor.kind != Platform::TensorKind::Float)
      throw Refusal("the state " + SourceTensorText(tensor) +
                    " is not of float32 and always starts at zero: leave out --initial");
    std::int64_t count = 1;
    for (const std::int64_t size : shape)
      count *= size;
    return graph.Floats(InitialValues(tensor, value->second, Index(count)), shape);
  }

  /// The signal that the result makes, with classes unless another part follows.
  Signal Apply(const Roles& roles, const std::string& result, const Signal& spectrum,
               const Signal& frame, std::size_t index) {
    const bool isLast = index + 1 == plan.parts.size();
    Signal out;
    out.isSpectrum = IsSpectral(roles.result);
    if (roles.result == Result::Samples) {
      out.re = result;
    } else if (roles.result == Result::Gate) {
      const Signal gated =
          frame.isSpectrum || frame.re.empty() ? Signal{false, given, {}, false} : frame;
      out.re = Multiply(graph.Unsqueeze(result, {1}), NewSamples(gated.re));
    } else if (roles.result == Result::Mask) {
      out.re = Multiply(result, spectrum.re);
      out.im = Multiply(result, spectrum.im);
    } else {
      const std::string re = graph.Take(result, 2, 0), im = graph.Take(result, 2, 1);
      if (roles.result == Result::Spectrum) {
        out.re = Scale(re, 1 / request.scale);
        out.im = Scale(im, 1 / request.scale);
      } else {
        out.re = graph.Apply("Sub", {Multiply(re, spectrum.re), Multiply(im, spectrum.im)});
        out.im = graph.Apply("Add", {Multiply(re, spectrum.im), Multiply(im, spectrum.re)});
      }
    }
    out.hasClasses = isLast;
    if (!isLast) {
      out.re = graph.Squeeze(out.re, {0});
      if (out.isSpectrum) out.im = graph.Squeeze(out.im, {0});
    }
    return out;
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
};

}  // namespace

Plan BuildStep(const Plan& plan, const AdaptRequest& request) {
  return StepBuilder(plan, request).Build();
}

}  // namespace Orvik::Tesmo::Tool
