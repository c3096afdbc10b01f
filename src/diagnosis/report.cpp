#include "diagnosis/report.h"

#include "diagnosis/model_description.h"
#include "runtime/text.h"

#include <cstdio>
#include <iomanip>
#include <ostream>

namespace Orvik::Tesmo::Diagnosis {
namespace {

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

/// The id that the library finds for `name`: a class, or their count for "Rest"; -1 for none.
int FindClass(const ModelFacts& facts, const char16_t* name) {
  const std::uint32_t count = facts.info.GetAudioClassCount();
  for (std::uint32_t id = 0; id < count; ++id)
    if (Dnn::EqualIgnoringCase(facts.info.GetAudioClassName(id), name)) return static_cast<int>(id);
  return Dnn::EqualIgnoringCase(u"Rest", name) ? static_cast<int>(count) : -1;
}

}  // namespace

void PrintField(std::ostream& out, std::string_view label, std::string_view text) {
  if (!text.empty()) out << "  " << std::left << std::setw(10) << label << ' ' << text << '\n';
}

std::string Counted(std::uint64_t count, std::string_view noun) {
  return std::to_string(count) + ' ' + std::string(noun) + (count == 1 ? "" : "s");
}

std::string DurationText(double seconds) {
  return seconds < 1 ? Format("%.1f ms", seconds * 1000) : Format("%.2f s", seconds);
}

std::string LatencyText(std::uint64_t frames, std::int32_t rateHz) {
  std::string text = Counted(frames, "frame");
  if (rateHz > 0) text += " (" + DurationText(static_cast<double>(frames) / rateHz) + ")";
  return text;
}

std::string StreamText(const StreamRequest& settled, const ModelFacts& facts) {
  return Counted(settled.channelCount, "channel") + ", " + Counted(settled.sequenceSize, "window") +
         " of " + Counted(facts.layout.GetWindowLength(), "frame") + " per evaluation, blocks of " +
         Counted(settled.blockFrames, "frame");
}

std::string WindowText(const ModelFacts& facts) {
  const auto& shape = facts.info.GetWindowShape();
  if (!shape)
    return facts.layout.GetInputComponents() > 1 ? "root-hann"
                                                 : "none before the model, hann behind";
  std::string text = shape->name.empty() ? "numbers" : shape->name;
  if (shape->length != 0) text += " of " + Counted(shape->length, "frame");
  if (!shape->synthesis.empty()) text += ", others behind the model";
  return text;
}

std::vector<std::string> Notes(const ModelFacts& facts) {
  std::vector<std::string> notes;
  const auto& info = facts.info;
  const auto& layout = facts.layout;
  const std::int64_t outputFeatures = layout.GetDeclaredOutputShape()[static_cast<std::size_t>(
      layout.GetOutputDimension(Dnn::OutputRole::Features))];
  if (outputFeatures > static_cast<std::int64_t>(layout.GetFeatureSize()))
    notes.push_back("the output's windows (Features) are longer than the input's: its samples are "
                    "read as if they were not, and come out garbled");
  for (std::uint32_t id = 0; id < info.GetAudioClassCount(); ++id) {
    const std::string name = PrintableText(info.GetAudioClassName(id));
    if (FindClass(facts, info.GetAudioClassName(id)) != static_cast<int>(id))
      notes.push_back(
          "class " + std::to_string(id + 1) + ", " + name +
          ", has the name of an earlier class: no gain reaches it, and it stays silent");
    else if (Dnn::EqualIgnoringCase(info.GetAudioClassName(id), u"Rest"))
      notes.push_back("the class " + name +
                      " hides the remainder Rest, whose gain cannot be set by name then");
  }
  for (const auto& binding : info.GetChannelBindings())
    if (FindClass(facts, binding.audioClass.c_str()) < 0)
      notes.push_back("channel " + std::to_string(binding.channel) + " is bound to " +
                      PrintableText(binding.audioClass) +
                      ", which is no class: the binding does nothing");
  return notes;
}

void PrintNotes(std::ostream& out, const std::vector<std::string>& notes) {
  for (const std::string& note : notes)
    out << "note: " << note << '\n';
}

}  // namespace Orvik::Tesmo::Diagnosis
