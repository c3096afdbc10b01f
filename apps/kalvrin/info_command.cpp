#include "command_line/command.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "model/model.h"
#include "runtime/metadata.h"
#include "runtime/metadata_json.h"
#include "runtime/model_loading.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <optional>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr const char* inputRoles[] = {"channels", "windows", "features", "components"};
constexpr const char* outputRoles[] = {"classes", "channels", "windows", "features", "components"};

/// The shape with what each dimension means: "[channels *, windows *, samples 512]".
template <std::size_t N, class PositionOf>
std::string MeaningText(const Platform::Shape& shape, const char* const (&roles)[N],
                        const char* features, PositionOf positionOf) {
  std::string text = "[";
  for (std::size_t position = 0; position < shape.size(); ++position)
    for (std::size_t role = 0; role < N; ++role) {
      if (positionOf(role) != static_cast<int>(position)) continue;
      const std::string_view name = roles[role];
      text += (position == 0 ? "" : ", ") + std::string(name == "features" ? features : name) +
              ' ' + (Dnn::IsFree(shape[position]) ? "*" : std::to_string(shape[position]));
    }
  return text + "]";
}

std::string InputText(const Dnn::ModelLayout& layout) {
  const char* features = layout.GetInputComponents() > 1 ? "bins" : "samples";
  return MeaningText(layout.GetDeclaredInputShape(), inputRoles, features, [&](std::size_t role) {
    return layout.GetInputDimension(static_cast<Dnn::InputRole>(role));
  });
}

std::string OutputText(const Dnn::ModelLayout& layout) {
  const char* features = layout.GetOutputComponents() > 1 ? "bins" : "samples";
  return MeaningText(layout.GetDeclaredOutputShape(), outputRoles, features, [&](std::size_t role) {
    return layout.GetOutputDimension(static_cast<Dnn::OutputRole>(role));
  });
}

void PrintFeatures(const char* title, const std::vector<FeatureDescription>& features,
                   const std::string& audioShape) {
  std::cout << title << '\n';
  for (std::size_t i = 0; i < features.size(); ++i) {
    const FeatureDescription& feature = features[i];
    std::string text = TypeText(feature);
    if (feature.kind == Platform::FeatureKind::Tensor)
      text += ' ' + (i == 0 && !audioShape.empty() ? audioShape : ShapeText(feature.shape));
    text += i == 0 ? "  audio" : "  state " + std::to_string(i);
    PrintField(std::cout, feature.name, text);
  }
}

void PrintGeometry(const ModelFacts& facts) {
  const auto& layout = facts.layout;
  const std::uint64_t window = layout.GetWindowLength();
  PrintField(std::cout, "works on",
             layout.GetInputComponents() > 1
                 ? "spectra of " + Counted(layout.GetFeatureSize(), "bin")
                 : std::string("samples"));
  PrintField(std::cout, "window",
             LatencyText(window, facts.sampleRateHz) + ", " + WindowText(facts));
  PrintField(std::cout, "hop", LatencyText(layout.GetHopLength(), facts.sampleRateHz));
  const bool own = facts.info.GetBaselineSequenceSize() != 0;
  PrintField(std::cout, "sequence",
             Counted(facts.Settle({}).sequenceSize, "window") + " per evaluation, " +
                 (own ? "the model's own choice" : "the library's default"));
  PrintField(std::cout, "lookahead",
             Counted(static_cast<std::uint64_t>(facts.lookahead), "window"));
  PrintField(std::cout, "states", std::to_string(layout.GetStateCount()));
}

void PrintClasses(const ModelFacts& facts) {
  std::cout << "classes\n";
  const auto names = facts.ClassNames();
  for (std::size_t id = 0; id < names.size(); ++id)
    PrintField(std::cout, std::to_string(id + 1), names[id]);
  PrintField(std::cout, "and", "Rest, which is what no class claims");
}

void PrintBindings(const ModelFacts& facts) {
  std::cout << "channel bindings\n";
  const auto& bindings = facts.info.GetChannelBindings();
  if (bindings.empty())
    PrintField(std::cout, "none", "every channel is a mixture, which the model splits");
  for (const auto& binding : bindings)
    PrintField(std::cout, "channel " + std::to_string(binding.channel),
               "carries " + PrintableText(binding.audioClass) +
                   " alone: it is scaled by that gain and gets nothing from the model");
}

enum class ValueKind { Text, Number, List, Window };

/// Whether a value is of its key's type; otherwise the default is used.
bool Counts(ValueKind kind, const std::u16string& value) {
  using Type = Dnn::MetadataJson::Type;
  if (kind == ValueKind::Text || kind == ValueKind::Window) return true;
  const Type type = Dnn::ParseMetadataJson(value).type;
  if (kind == ValueKind::List) return type == Type::Array;
  return type == Type::Unsigned || type == Type::Integer;
}

void PrintKey(std::u16string_view key, std::string_view text) {
  std::cout << "  " << std::left << std::setw(28) << PrintableText(key) << ' ' << text << '\n';
}

void PrintMetadata(const ModelDescription& model, const ModelFacts& facts) {
  const struct {
    std::u16string name;
    ValueKind kind;
    std::string byDefault;  // where the model has no value that counts
  } keys[] = {
      {u"Name", ValueKind::Text, PrintableText(facts.info.GetName())},
      {u"SampleRate", ValueKind::Number, std::to_string(facts.info.GetSampleRate())},
      {u"LookaheadNumBlocks", ValueKind::Number,
       std::to_string(facts.info.GetLookaheadNumBlocks())},
      {u"OverlapInSamples", ValueKind::Number, std::to_string(facts.info.GetOverlapInSamples())},
      {u"BaselineSequenceSize", ValueKind::Number,
       std::to_string(facts.info.GetBaselineSequenceSize())},
      {u"AudioClassNames", ValueKind::List, "[\"" + facts.ClassNames().front() + "\"]"},
      {u"ChannelToAudioClassBindings", ValueKind::List, "[]"},
      {u"WindowShape", ValueKind::Window, WindowText(facts)},
  };
  std::cout << "metadata\n";
  auto others = model.metadata;
  for (const auto& key : keys) {
    const auto entry = others.extract(key.name);
    if (!entry)
      PrintKey(key.name, key.byDefault + " (default)");
    else if (Counts(key.kind, entry.mapped()))
      PrintKey(key.name, ShortText(entry.mapped()));
    else
      PrintKey(key.name, key.byDefault + " (default; the model's " + PrintableText(entry.mapped()) +
                             " is of another type)");
  }
  for (const auto& [name, value] : others)
    PrintKey(name, PrintableText(value) + " (not read)");
}

/// A stream reads two of the keys by other rules; where the results differ, the stream's count.
std::vector<std::string> SecondReadings(const ModelFacts& facts) {
  std::vector<std::string> notes;
  const auto add = [&notes](const std::string& key, std::int32_t taken, std::int32_t read) {
    if (taken != read)
      notes.push_back("a stream takes " + key + " as " + std::to_string(taken) +
                      ", by the digits at the start of its text; 0 without any");
  };
  add("SampleRate", facts.sampleRateHz, facts.info.GetSampleRate());
  add("LookaheadNumBlocks", facts.lookahead, facts.info.GetLookaheadNumBlocks());
  return notes;
}

void PrintLatencies(const ModelFacts& facts) {
  StreamRequest settled = facts.Settle({});
  std::cout << "latency with " << Counted(settled.sequenceSize, "window") << " per evaluation\n";
  for (const std::uint64_t block : {32, 64, 128, 256, 480, 512, 960, 1024, 2048, 4096}) {
    settled.blockFrames = block;
    PrintField(std::cout, "block " + std::to_string(block),
               LatencyText(facts.Latency(settled), facts.sampleRateHz));
  }
}

int Info(const std::string& path) {
  const ModelFile file = ReadModelFile(path);
  LoadedModel model(path);
  std::optional<Refusal> refusal;
  try {
    model.Load(file);
  } catch (...) {
    refusal = model.RefusalFor({});
    if (!model.Description()) throw *refusal;
  }
  const ModelDescription& description = *model.Description();
  const std::string name = refusal ? file.path : PrintableText(model.Facts().info.GetName());
  std::cout << name << " (" << file.bytes.size() << " bytes)\n";
  if (!refusal) PrintGeometry(model.Facts());
  PrintFeatures("inputs", description.inputs, refusal ? "" : InputText(model.Facts().layout));
  PrintFeatures("outputs", description.outputs, refusal ? "" : OutputText(model.Facts().layout));
  if (refusal) throw *refusal;
  const ModelFacts& facts = model.Facts();
  PrintClasses(facts);
  PrintBindings(facts);
  PrintMetadata(description, facts);
  PrintLatencies(facts);
  PrintNotes(std::cout, Notes(facts));
  PrintNotes(std::cout, SecondReadings(facts));
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto path = std::make_shared<std::string>();
  AddOperand(line, "MODEL", *path);
  return [path] { return Info(*path); };
}

}  // namespace

constinit const Command infoCommand = {
    "info",
    "print what a model declares: tensors, sizes, classes, metadata, latency",
    "Prints the inputs and outputs with the meaning of their dimensions, window, hop, states,\n"
    "classes, channel bindings, metadata with the defaults marked, and the latency for usual "
    "block\n"
    "lengths. A free dimension is a star. 'kalvrin check' says whether the library takes the "
    "model\n"
    "at certain sizes.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
