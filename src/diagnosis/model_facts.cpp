#include "diagnosis/model_facts.h"

#include "diagnosis/model_description.h"
#include "kalvrin/stream_processor.h"
#include "runtime/metadata.h"

namespace Orvik::Tesmo::Diagnosis {
namespace {

std::uint64_t UsualChannelCount(const Dnn::ModelLayout& layout) {
  const int input = layout.GetInputDimension(Dnn::InputRole::Channels);
  const int output = layout.GetOutputDimension(Dnn::OutputRole::Channels);
  if (input < 0 || output < 0) return 1;
  for (const std::int64_t fixed :
       {layout.GetDeclaredInputShape()[static_cast<std::size_t>(input)],
        layout.GetDeclaredOutputShape()[static_cast<std::size_t>(output)]})
    if (!Dnn::IsFree(fixed)) return static_cast<std::uint64_t>(fixed);
  return 2;
}

}  // namespace

ModelFacts::ModelFacts(const Platform::Model& model)
    : layout(model), info(model), sampleRateHz(Dnn::FindMetadataDecimal(model, u"SampleRate")),
      lookahead(Dnn::FindMetadataDecimal(model, u"LookaheadNumBlocks")) {}

StreamRequest ModelFacts::Settle(StreamRequest request) const {
  const std::int32_t own = info.GetBaselineSequenceSize();
  if (request.channelCount == 0) request.channelCount = UsualChannelCount(layout);
  // a negative number of the model is left to the core, which refuses it
  if (request.sequenceSize == 0 && own >= 0)
    request.sequenceSize = own != 0 ? static_cast<std::uint64_t>(own) : Dnn::DefaultSequenceSize;
  if (request.blockFrames == 0) request.blockFrames = layout.GetHopLength();
  return request;
}

std::uint64_t ModelFacts::Latency(const StreamRequest& settled) const {
  return LatencyFrames(layout.GetWindowLength(), static_cast<std::uint64_t>(lookahead),
                       settled.sequenceSize, settled.blockFrames);
}

std::vector<std::string> ModelFacts::ClassNames() const {
  std::vector<std::string> names;
  for (std::uint32_t id = 0; id < info.GetAudioClassCount(); ++id)
    names.push_back(PrintableText(info.GetAudioClassName(id)));
  return names;
}

}  // namespace Orvik::Tesmo::Diagnosis
