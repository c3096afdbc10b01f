#include "plugin/described_model.h"

#include "command_line/errors.h"
#include "diagnosis/model_description.h"
#include "diagnosis/model_facts.h"
#include "diagnosis/refusals.h"
#include "failure/exceptions.h"
#include "kalvrin/stream_processor.h"
#include "kernels/ipps.h"
#include "model/model.h"
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

/// Throws Refusal for a name with characters that do not fit on a line.
void CheckClassNames(const Hosting::Description& description) {
  for (const std::string& name : description.classes)
    if (const std::string text = PrintableText(name); text != name)
      throw Refusal("a class is called '" + text + "', with characters that no host can show");
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
  description = Hosting::DescriptionOf(model.Facts(), request.sequenceSize);
  CheckClassNames(description);
  description.isAlwaysSpread = request.isAlwaysSpread;
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

Hosting::Description DescriptionOfAnyModel(const PluginRequest& request) {
  Hosting::Description description =
      Plugin::DescriptionOfAnyModel(request.name.empty() ? "Any model" : request.name);
  description.isAlwaysSpread = request.isAlwaysSpread;
  if (request.channelCount > 2)
    description.channelCounts.push_back(static_cast<unsigned>(request.channelCount));
  return description;
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

double PluginLatency(const Hosting::Description& d, bool isSpread, double hostRateHz) {
  const std::uint64_t chunk = d.ChunkFrames();
  const std::uint64_t frames =
      LatencyFrames(d.windowLength, d.lookaheadBlocks, d.sequenceSize, chunk) +
      (isSpread ? chunk : 0);
  return static_cast<double>(frames) * hostRateHz / (d.sampleRateHz ? d.sampleRateHz : hostRateHz);
}

}  // namespace Orvik::Tesmo::Tool
