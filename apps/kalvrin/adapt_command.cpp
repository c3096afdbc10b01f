#include "adapt/adapt.h"
#include "command_line/command.h"
#include "command_line/values.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "model/model.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "system/files.h"
#include "system/process.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <optional>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr std::uint64_t mostWindow = 1 << 20, mostRate = 1 << 20, mostLookahead = 1000;

std::vector<std::string> Commas(std::string_view text) {
  return SplitAt(text, ',');
}

/// NAME=VALUE
std::pair<std::string, std::string> Assignment(std::string_view text) {
  const std::size_t place = text.find('=');
  if (place == std::string_view::npos || place == 0 || place + 1 == text.size())
    throw UsageError("'" + std::string(text) + "' is not NAME=VALUE");
  return {std::string(text.substr(0, place)), std::string(text.substr(place + 1))};
}

/// IN:OUT; names may have colons of their own ("state:0"), for which IN=OUT does, too.
std::pair<std::string, std::string> Pair(std::string_view text) {
  const char mark = text.find('=') == std::string_view::npos ? ':' : '=';
  const std::size_t place = text.find(mark);
  if (place == std::string_view::npos || place == 0 || place + 1 == text.size())
    throw UsageError("'" + std::string(text) + "' is not IN:OUT");
  return {std::string(text.substr(0, place)), std::string(text.substr(place + 1))};
}

/// An option of the command line, and without its dashes a word of a family's file.
struct Option {
  const char *name, *value, *help;  ///< an empty value makes a flag
  void (*set)(AdaptRequest&, std::string_view value);
};

constexpr Option options[] = {
    {"--classes", "A,B", "names of the classes, in the model's order",
     [](AdaptRequest& request, std::string_view value) { request.classes = Commas(value); }},
    {"--rate", "HZ", "sample rate that the model is made for",
     [](AdaptRequest& request, std::string_view value) {
       request.rate = ParseCount(value, 1, mostRate);
     }},
    {"--lookahead", "N", "windows by which the model's output is late (default: 0)",
     [](AdaptRequest& request, std::string_view value) {
       request.lookahead = ParseCount(value, 0, mostLookahead);
     }},
    {"--window", "[NAME][:N]",
     "root-hann (assumed), hann, vorbis, rectangular, sine, hamming; samples",
     [](AdaptRequest& request, std::string_view value) { ParseWindow(value, request); }},
    {"--hop", "N", "samples from window to window (assumed: half a window)",
     [](AdaptRequest& request, std::string_view value) {
       request.hop = ParseCount(value, 1, mostWindow);
     }},
    {"--name", "TEXT", "the model's name (default: its own, else that of the file)",
     [](AdaptRequest& request, std::string_view value) { request.name = value; }},
    {"--state", "IN:OUT", "an input and the output that carries it on; repeatable",
     [](AdaptRequest& request, std::string_view value) { request.states.push_back(Pair(value)); }},
    {"--input", "NAME[,NAME]", "the input with audio, or those of real and imaginary part",
     [](AdaptRequest& request, std::string_view value) { request.inputs = Commas(value); }},
    {"--output", "NAME[,...]", "the outputs with audio: one, or each class, or each class's parts",
     [](AdaptRequest& request, std::string_view value) { request.outputs = Commas(value); }},
    {"--input-layout", "TEXT", "its dimensions: N channels, T windows, F bins, C parts, 1 none",
     [](AdaptRequest& request, std::string_view value) { request.inputLayouts = Commas(value); }},
    {"--output-layout", "TEXT", "likewise, and K classes",
     [](AdaptRequest& request, std::string_view value) { request.outputLayouts = Commas(value); }},
    {"--in", "WORD[,WORD]|NAME=WORD",
     "what the model takes, of each file: spectrum, magnitude, power, samples, rows; or of the "
     "input NAME, repeatable",
     [](AdaptRequest& request, std::string_view value) {
       request.features.clear();
       if (value.find('=') == std::string_view::npos) {
         request.namedFeatures.clear();
         for (const std::string& word : Commas(value))
           request.features.push_back(ParseFeature(word));
         return;
       }
       const auto [name, word] = Assignment(value);
       std::erase_if(request.namedFeatures,
                     [&name = name](const auto& known) { return known.first == name; });
       request.namedFeatures.emplace_back(name, ParseFeature(word));
     }},
    {"--out", "WORD[,WORD]", "what it returns: spectrum, mask, complex-mask, samples, gate, none",
     [](AdaptRequest& request, std::string_view value) {
       request.results.clear();
       for (const std::string& word : Commas(value))
         request.results.push_back(ParseResult(word));
     }},
    {"--bands", "N,N,...", "bins of each band, from the lowest, that features or masks are of",
     [](AdaptRequest& request, std::string_view value) {
       request.bands.clear();
       for (const std::string& width : Commas(value))
         request.bands.push_back(static_cast<std::int64_t>(ParseCount(width, 1, mostWindow)));
     }},
    {"--link", "OUT[=IN],...", "outputs that are inputs of later files, of the same name or IN",
     [](AdaptRequest& request, std::string_view value) {
       for (const std::string& text : Commas(value)) {
         const auto link =
             text.find('=') == std::string::npos ? std::pair(text, text) : Assignment(text);
         std::erase_if(request.links,
                       [&](const auto& known) { return known.second == link.second; });
         request.links.push_back(link);
       }
     }},
    {"--join", "WORD", "windows that come out: windowed, added, finished",
     [](AdaptRequest& request, std::string_view value) { request.joining = ParseJoining(value); }},
    {"--transform", "N", "samples of the transform, where the window is shorter",
     [](AdaptRequest& request, std::string_view value) {
       request.transform = ParseCount(value, 2, mostWindow);
       if (request.transform % 2 != 0)
         throw UsageError("a transform has an even number of samples");
     }},
    {"--context", "N", "samples before the window that the model takes as well",
     [](AdaptRequest& request, std::string_view value) {
       request.context = ParseCount(value, 0, mostWindow);
     }},
    {"--delay", "N", "samples by which the model's output is late",
     [](AdaptRequest& request, std::string_view value) {
       request.delay = ParseCount(value, 0, mostWindow);
     }},
    {"--scale", "X", "factor of the transform that the model knows (default: 1)",
     [](AdaptRequest& request, std::string_view value) {
       request.scale = ParseNumber(value);
       if (request.scale == 0) throw UsageError("a scale of 0 leaves nothing");
     }},
    {"--normalise", "RULE", "fixed:MEAN:DEVIATION, running-mean:KEEP[:START[..LAST]], ...",
     [](AdaptRequest& request, std::string_view value) {
       request.normalisation = ParseNormalisation(value);
     }},
    {"--set", "NAME=NUMBER", "the value of an input that is neither audio nor state; repeatable",
     [](AdaptRequest& request, std::string_view value) {
       request.constants.push_back(Assignment(value));
     }},
    {"--initial", "NAME=VALUE",
     "first value of a state: a number, a file of floats, or metadata:KEY; repeatable",
     [](AdaptRequest& request, std::string_view value) {
       request.initial.push_back(Assignment(value));
     }},
    {"--carry-hidden", "", "carries on the states that the graph's GRU, LSTM and RNN hide",
     [](AdaptRequest& request, std::string_view) { request.carriesHiddenStates = true; }},
    {"--in-graph", "", "windows and transforms in the graph where the library has them, too",
     [](AdaptRequest& request, std::string_view) { request.isAllInGraph = true; }},
};

struct Adapted {
  std::string bytes;
  Loops loops;
  Comparison comparison;
};

/// The fastest way of holding the step whose output is that of the step.
Adapted Adapt(Platform::Runtime& runtime, const Plan& step, const AdaptRequest& request) {
  const Roles& roles = step.parts[0];
  const TrialSignal signal(roles.inputs[0].size * (IsSpectral(roles.result) ? 2 : 1));
  std::vector<float> expected;
  try {
    expected = RunStep(runtime, step.sources[0].proto.SerializeAsString(), roles, signal);
  } catch (...) {
    throw Refusal(
        "the engine does not run the model window by window as its shapes are understood: " +
        TextOfCurrentException());
  }
  std::string reason;
  for (const Loops& loops : PossibleLoops(roles)) {
    Adapted adapted{BuildAdaptedModel(step, request, loops), loops, {}};
    try {
      adapted.comparison =
          Compare(expected, RunAdapted(runtime, adapted.bytes, step, loops, signal));
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
  throw Refusal("the adapted model does not return what the model returns: " + reason);
}

void PrintTensors(const char* label, const std::vector<SourceTensor>& tensors,
                  const std::string& meaning) {
  for (const SourceTensor& tensor : tensors)
    PrintField(std::cout, label, SourceTensorText(tensor) + " as " + meaning);
}

void PrintPart(const Roles& roles) {
  for (const AudioInput& input : roles.inputs)
    PrintTensors("input", input.tensors,
                 FeatureText(input.feature) + " " +
                     LayoutText(input.layout, IsSpectral(input.feature)));
  for (const Link& link : roles.links)
    PrintField(std::cout, "link",
               SourceTensorText(link.input) + " from the output '" + link.output.name +
                   "' of file " + std::to_string(link.part + 1));
  PrintTensors("output", roles.outputs,
               ResultText(roles.result) + " " +
                   LayoutText(roles.outputLayout, IsSpectral(roles.result)));
  for (const StatePair& pair : roles.states)
    PrintField(std::cout, "state",
               SourceTensorText(pair.input) + " becomes '" + pair.output.name + "'");
}

void PrintSummary(const std::string& path, const Plan& plan, const Adapted& adapted) {
  std::cout << "adapted: " << path << '\n';
  for (const Roles& roles : plan.parts)
    PrintPart(roles);
  const Framing& framing = plan.framing;
  std::string window = framing.windowName + ", " + std::to_string(framing.window) + " samples";
  if (framing.window != framing.transform) window += " in " + std::to_string(framing.transform);
  if (framing.isWindowAssumed) window += " (assumed: no file says it; --window NAME[:N])";
  PrintField(std::cout, "window", window);
  PrintField(std::cout, "hop",
             std::to_string(framing.hop) + " samples" +
                 (framing.isHopAssumed ? " (assumed: no file says it; --hop N)" : ""));
  PrintField(std::cout, "takes",
             framing.isOnSpectra ? "spectra: the library cuts the windows"
                                 : "samples: windows and overlap are in the graph");
  PrintField(std::cout, "loops",
             adapted.loops.overChannels
                 ? adapted.loops.overWindows ? "over channels and windows" : "over channels"
             : adapted.loops.overWindows ? "over windows"
                                         : "none");
  std::array<char, 160> text{};
  (void)std::snprintf(text.data(), text.size(),
                      "%s against %s, %d windows of %d channels of noise; largest difference %.2g "
                      "at a peak of %.2g",
                      "all at once", plan.needsStep ? "window by window" : "the original",
                      static_cast<int>(TrialSignal::windows),
                      static_cast<int>(TrialSignal::channels), adapted.comparison.difference,
                      adapted.comparison.peak);
  PrintField(std::cout, "verified", text.data());
  PrintField(std::cout, "not",
             "window, hop and what the tensors mean: compare with the loop of the model's authors");
}

/// The parts of the model, of one opset, with all sizes that a run can tell.
std::vector<SourceModel> ReadSources(Platform::Runtime& runtime, std::vector<SourceModel> sources,
                                     AdaptRequest& request) {
  int opset = 0;
  for (const SourceModel& source : sources)
    opset = std::max(opset, source.opset);
  std::size_t hidden = 0;
  for (SourceModel& source : sources) {
    ConvertOpset(source, opset);
    LearnShapes(runtime, source, request);
    if (!request.carriesHiddenStates) continue;
    const NamePairs pairs = BringOutHiddenStates(runtime, source, request);
    request.states.insert(request.states.end(), pairs.begin(), pairs.end());
    hidden += pairs.size();
  }
  if (request.carriesHiddenStates && hidden == 0)
    throw Refusal("the model " + sources[0].path +
                  " hides nothing that --carry-hidden carries on: no GRU, LSTM or RNN that starts "
                  "at zero, no padding in time");
  return sources;
}

int PrintFamilies() {
  for (const Family& family : InstalledFamilies())
    PrintRow(std::cout, 26, family.name, family.about);
  return ExitStatus::Ok;
}

struct Settings {
  std::vector<std::string> files;  ///< the last is OUT
  std::string family;
  std::vector<std::pair<const Option*, std::string>> given;
};

void Set(AdaptRequest& request, const Option& option, const std::string& value) {
  try {
    option.set(request, value);
  } catch (const UsageError& error) {
    throw UsageError(std::string(option.name) + ": " + error.what());
  }
}

/// What the family says, then what the command line says, which wins.
AdaptRequest RequestOf(const Settings& settings) {
  AdaptRequest request;
  if (!settings.family.empty()) {
    const Family family = ReadFamily(settings.family);
    for (const auto& line : family.options) {
      const std::string name = "--" + line.first;
      const auto* const option =
          std::ranges::find_if(options, [&](const Option& row) { return row.name == name; });
      if (option == std::end(options))
        throw UsageError(family.name + " has a line that is no option: there is no " + name);
      Set(request, *option, line.second);
    }
  }
  for (const auto& [option, value] : settings.given)
    Set(request, *option, value);
  return request;
}

int RunAdapt(Settings settings) {
  AdaptRequest request = RequestOf(settings);
  const std::string path = settings.files.back();
  settings.files.pop_back();
  std::vector<SourceModel> sources;
  for (const std::string& part : settings.files)
    sources.push_back(ReadSourceModel(ReadModelFile(part)));
  ContinueInChild();
  const auto engine = OpenEngine();
  const Plan plan = MakePlan(ReadSources(*engine, std::move(sources), request), request);
  const Plan step = plan.needsStep ? BuildStep(plan, request) : plan;
  const Adapted adapted = Adapt(*engine, step, request);
  const auto model = Dnn::LoadLearningModel(*engine, adapted.bytes.data(), adapted.bytes.size());
  AssembleStream(engine, model, 2, 2, static_cast<std::uint64_t>(plan.framing.hop));
  OutputFile out(path);
  if (const int error = WriteFully(out.Get(), adapted.bytes.data(), adapted.bytes.size()))
    throw Refusal("cannot write " + out.Name() + ": " + SystemErrorText(error));
  out.Commit();
  if (path != "-") PrintSummary(out.Name(), plan, adapted);
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  const auto listed = std::make_shared<bool>(false);
  AddOperands(line, "IN... OUT", s->files);
  for (const Option& option : options) {
    const auto take = [s, &option](const std::string& text) {
      s->given.emplace_back(&option, text);
    };
    if (*option.value != 0)
      AddOption(line, option.name, option.value, option.help, take);
    else
      line.add_flag_callback(
          option.name, [take] { take({}); }, option.help);
  }
  AddOption(line, "--like", "FAMILY", "options of a known family, or of a file of such",
            [s](const std::string& text) { s->family = text; });
  AddFlag(line, "--families", *listed, "lists the known families");
  return [s, listed] {
    if (*listed) return PrintFamilies();
    if (s->files.size() < 2)
      throw UsageError(s->files.empty() ? "IN is required" : "OUT is required");
    return RunAdapt(*s);
  };
}

}  // namespace

constinit const Command adaptCommand = {
    "adapt",
    "make a streaming model of another form one of the library's contract",
    "IN is an ONNX model that is given one window at a time and keeps recurrent states; several "
    "are\n"
    "parts in a row, each given what the one before it returns. OUT, the last file, holds the same "
    "in\n"
    "the form that the library takes, with its metadata: windows, transforms and overlap written "
    "into\n"
    "the graph where the library does not have them, looped over windows and channels where the "
    "model\n"
    "does one at a time. No file says all that has to be known: what is assumed is printed.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
