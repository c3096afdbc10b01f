#include "adapt/adapted_model.h"
#include "adapt/comparison.h"
#include "adapt/roles.h"
#include "adapt/source_model.h"
#include "command_line/command.h"
#include "command_line/values.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "model/model.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "system/files.h"
#include "system/process.h"

#include <array>
#include <cstdio>
#include <iostream>
#include <optional>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr std::uint64_t mostWindow = 1 << 20, mostRate = 1 << 20, mostLookahead = 1000;

std::vector<std::string> Commas(std::string_view text) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == ',')
      parts.emplace_back();
    else
      parts.back() += c;
  }
  for (const std::string& part : parts)
    if (part.empty()) throw UsageError("'" + std::string(text) + "' has an empty part");
  return parts;
}

/// IN:OUT; names may have colons of their own ("state:0"), for which IN=OUT does, too.
std::pair<std::string, std::string> Pair(std::string_view text) {
  const char mark = text.find('=') == std::string_view::npos ? ':' : '=';
  const std::size_t place = text.find(mark);
  if (place == std::string_view::npos || place == 0 || place + 1 == text.size())
    throw UsageError("'" + std::string(text) + "' is not IN:OUT");
  return {std::string(text.substr(0, place)), std::string(text.substr(place + 1))};
}

struct Adapted {
  std::string bytes;
  Loops loops;
  Comparison comparison;
};

/// The fastest way of holding the model that gives what the model gives.
Adapted Adapt(Platform::Runtime& runtime, const ModelFile& file, const SourceModel& source,
              const Roles& roles, const AdaptRequest& request) {
  const TrialSignal signal(roles.bins);
  std::vector<float> original;
  try {
    original =
        RunOriginal(runtime, std::string(file.bytes.begin(), file.bytes.end()), roles, signal);
  } catch (...) {
    throw Refusal(
        "the engine does not run the model window by window as its shapes are understood: " +
        TextOfCurrentException());
  }
  std::string reason;
  for (const Loops& loops : PossibleLoops(roles)) {
    Adapted adapted{BuildAdaptedModel(source, roles, request, loops), loops, {}};
    try {
      adapted.comparison =
          Compare(original, RunAdapted(runtime, adapted.bytes, roles, loops,
                                       static_cast<std::int64_t>(request.lookahead), signal));
    } catch (const Refusal&) {
      throw;
    } catch (...) {
      reason = TextOfCurrentException();
      continue;
    }
    if (adapted.comparison.IsEqual()) return adapted;
    std::array<char, 100> text{};
    (void)std::snprintf(text.data(), text.size(), "it differs by %.2g at a peak of %.2g",
                        adapted.comparison.difference, adapted.comparison.peak);
    reason = text.data();
  }
  throw Refusal("the adapted model does not give what the model gives: " + reason);
}

void PrintTensors(const char* label, const std::vector<SourceTensor>& tensors,
                  const Layout& layout) {
  for (const SourceTensor& tensor : tensors)
    PrintField(std::cout, label, SourceTensorText(tensor) + " as " + LayoutText(layout));
}

void PrintSummary(const std::string& path, const Roles& roles, const Adapted& adapted) {
  std::cout << "adapted: " << path << '\n';
  PrintTensors("input", roles.inputs, roles.inputLayout);
  PrintTensors("output", roles.outputs, roles.outputLayout);
  for (const StatePair& pair : roles.states)
    PrintField(std::cout, "state",
               SourceTensorText(pair.input) + " becomes '" + pair.output.name + "'");
  PrintField(std::cout, "window", std::to_string(roles.Window()) + " samples");
  PrintField(std::cout, "loops",
             adapted.loops.overChannels
                 ? adapted.loops.overWindows ? "over channels and windows" : "over channels"
             : adapted.loops.overWindows ? "over windows"
                                         : "none");
  std::array<char, 120> text{};
  (void)std::snprintf(text.data(), text.size(),
                      "%d windows of %d channels; largest difference %.2g at a peak of %.2g",
                      static_cast<int>(TrialSignal::windows),
                      static_cast<int>(TrialSignal::channels), adapted.comparison.difference,
                      adapted.comparison.peak);
  PrintField(std::cout, "verified", text.data());
}

struct Settings : AdaptRequest {
  std::string source, target;
};

int RunAdapt(const Settings& request) {
  const ModelFile file = ReadModelFile(request.source);
  const SourceModel source = ReadSourceModel(file);
  const Roles roles = DecideRoles(source, request);
  ContinueInChild();
  const auto engine = OpenEngine();
  const Adapted adapted = Adapt(*engine, file, source, roles, request);
  const auto model = Dnn::LoadLearningModel(*engine, adapted.bytes.data(), adapted.bytes.size());
  AssembleStream(engine, model, 2, 2, static_cast<std::uint64_t>(roles.Window() / 2));
  OutputFile out(request.target);
  if (const int error = WriteFully(out.Get(), adapted.bytes.data(), adapted.bytes.size()))
    throw Refusal("cannot write " + out.Name() + ": " + SystemErrorText(error));
  out.Commit();
  if (request.target != "-") PrintSummary(out.Name(), roles, adapted);
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  AddOperand(line, "IN", s->source);
  AddOperand(line, "OUT", s->target);
  AddOption(line, "--classes", "A,B", "names of the classes, in the model's order",
            [s](const std::string& text) { s->classes = Commas(text); });
  AddCount(line, "--rate", s->rate, 1, mostRate, "sample rate that the model is made for", "HZ");
  AddCount(line, "--lookahead", s->lookahead, 0, mostLookahead,
           "windows by which the model's output is late (default: 0)");
  AddOption(line, "--window", "N", "samples of a window (default: as the bins say)",
            [s](const std::string& text) {
              s->window = ParseCount(text, 4, mostWindow);
              if (s->window % 2 != 0) throw UsageError("a window has an even number of samples");
            });
  AddCount(line, "--hop", s->hop, 1, mostWindow,
           "samples from window to window; refused unless half a window");
  AddOption(line, "--name", "TEXT", "the model's name (default: its own, else that of the file)",
            [s](const std::string& text) { s->name = text; });
  AddOption(line, "--state", "IN:OUT", "an input and the output that carries it on; repeatable",
            [s](const std::string& text) { s->states.push_back(Pair(text)); });
  AddOption(line, "--input", "NAME[,NAME]",
            "the input with audio, or those of real and imaginary part",
            [s](const std::string& text) { s->inputs = Commas(text); });
  AddOption(line, "--output", "NAME[,...]",
            "the outputs with audio: one, or each class, or each class's parts",
            [s](const std::string& text) { s->outputs = Commas(text); });
  AddOption(line, "--input-layout", "TEXT",
            "its dimensions: N channels, T windows, F bins, C parts, 1 none",
            [s](const std::string& text) { s->inputLayout = text; });
  AddOption(line, "--output-layout", "TEXT", "likewise, and K classes",
            [s](const std::string& text) { s->outputLayout = text; });
  return [s] { return RunAdapt(*s); };
}

}  // namespace

constinit const Command adaptCommand = {
    "adapt",
    "make a streaming model of another form one of the library's contract",
    "IN is an ONNX model that is given spectra window by window and keeps recurrent states: one\n"
    "tensor of real and imaginary part, or two; bins before or after time; one window per call or\n"
    "many. OUT holds the same model in the form that the library takes, with its metadata, looped\n"
    "over windows and channels where it does one at a time. Both are run on the same noise, and "
    "OUT\n"
    "is written only if they agree.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
