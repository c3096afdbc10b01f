#include "plugin/described_model.h"

#include "command_line/errors.h"
#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"
#include "diagnosis/refusals.h"
#include "failure/exceptions.h"
#include "kalvrin/stream_processor.h"
#include "kernels/ipps.h"
#include "model/model.h"
#include "render/mix.h"
#include "runtime/model_loading.h"
#include "runtime/text.h"
#include "stream/set_up.h"
#include "wrapper/ports.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>

namespace Orvik::Tesmo::Tool {
namespace {

/// The name in UTF-8. Throws Refusal for one with characters that do not fit on a line.
std::string ClassName(const std::u16string& name) {
  std::string text = PrintableText(name);
  if (Dnn::Utf8FromUtf16(name) != text)
    throw Refusal("a class is called '" + text + "', with characters that no host can show");
  return text;
}

void TakeFacts(Plugin::Description& d, const ModelFacts& facts, const PluginRequest& request) {
  d.sampleRateHz = static_cast<std::uint32_t>(std::max(facts.sampleRateHz, 0));
  d.windowLength = facts.layout.GetWindowLength();
  d.lookaheadBlocks = static_cast<std::uint64_t>(facts.lookahead);
  d.sequenceSize = facts.Settle({.sequenceSize = request.sequenceSize}).sequenceSize;
  for (const Stem& stem : StemsOf(facts))
    if (!stem.isRemainder && !Dnn::EqualIgnoringCase(stem.className.c_str(), u"Rest"))
      d.classes.push_back(ClassName(stem.className));
}

}  // namespace

DescribedModel::DescribedModel(const std::string& path, const PluginRequest& request)
    : file(ReadModelFile(path)) {
  LoadedModel model(path);
  try {
    model.Load(file);
  } catch (...) {
    throw model.RefusalFor({});
  }
  description.isAlwaysSpread = request.isAlwaysSpread;
  TakeFacts(description, model.Facts(), request);
  std::optional<Refusal> refusal;
  std::set<unsigned> counts = {1, 2};
  if (request.channelCount != 0) counts.insert(static_cast<unsigned>(request.channelCount));
  for (const unsigned count : counts) {
    const StreamRequest sizes = {count, description.sequenceSize, description.ChunkFrames()};
    try {
      model.MakeStream(sizes);
      description.channelCounts.push_back(count);
    } catch (const std::bad_alloc&) {
      throw;  // not the model's fault
    } catch (const DSP::IPPException& error) {
      if (error.status == ippStsMemAllocErr) throw;
      refusal = model.RefusalFor(sizes);
    } catch (...) {
      refusal = model.RefusalFor(sizes);
    }
  }
  const bool isAskedForm = request.channelCount == 0 ||
                           std::ranges::count(description.channelCounts, request.channelCount) != 0;
  if (description.channelCounts.empty() || !isAskedForm) throw *refusal;
  description.name =
      request.name.empty() ? PrintableText(model.Facts().info.GetName()) : request.name;
  if (description.name.empty()) description.name = std::filesystem::path(path).stem();
  description.symbol = Plugin::SymbolFor(description.name);
}

std::string CheckedPluginName(std::string_view text) {
  std::string name(text);
  try {
    if (!name.empty() && PrintableText(Dnn::Utf16FromUtf8(name)) == name) return name;
  } catch (const std::range_error&) {
    // no UTF-8: refused below
  }
  throw UsageError("a name is a line of text");
}

double PluginLatency(const Plugin::Description& d, bool isSpread, double hostRateHz) {
  const std::uint64_t chunk = d.ChunkFrames();
  const std::uint64_t frames =
      LatencyFrames(d.windowLength, d.lookaheadBlocks, d.sequenceSize, chunk) +
      (isSpread ? chunk : 0);
  return static_cast<double>(frames) * hostRateHz / (d.sampleRateHz ? d.sampleRateHz : hostRateHz);
}

}  // namespace Orvik::Tesmo::Tool
