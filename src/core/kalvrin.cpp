#include "core/kalvrin.h"

#include "core/flushed_denormals.h"
#include "failure/exceptions.h"
#include "failure/sections.h"
#include "primitives/signal_primitives.h"
#include "runtime/geometry_check.h"
#include "runtime/metadata.h"
#include "runtime/model_loading.h"

#include <cstring>
#include <utility>

namespace Orvik::Tesmo::Dnn {

namespace {

RT_CONST constexpr char16_t RestName[] = u"Rest";
RT_CONST constexpr char16_t SampleRateKey[] = u"SampleRate";
RT_CONST constexpr char16_t LookaheadKey[] = u"LookaheadNumBlocks";
RT_CONST constexpr char16_t CorrelationId[] = u"RunId";

/// Windows per evaluation: what the host asked for, or the model's own choice where that is 0.
std::uint64_t SettledSequenceSize(std::uint64_t requested, const ModelInfo& info) {
  if (requested != 0) return requested;
  const std::int32_t baseline = info.GetBaselineSequenceSize();
  CheckBaselineSequenceSize(baseline);
  return baseline != 0 ? static_cast<std::uint64_t>(baseline) : DefaultSequenceSize;
}

ProcessingGeometry RequestedGeometry(const Platform::Model& model, const ModelLayout& layout,
                                     const ModelInfo& info, std::uint64_t sequenceSize,
                                     std::uint64_t channelCount) {
  const std::int32_t lookahead = FindMetadataDecimal(model, LookaheadKey);
  CheckLookahead(lookahead);
  const ProcessingGeometry geometry = {
      layout.GetWindowLength(), SettledSequenceSize(sequenceSize, info), channelCount,
      static_cast<std::uint32_t>(lookahead), layout.GetHopLength()};
  CheckGeometry(geometry);  // before a transform is planned: one that is too long takes gigabytes
  return geometry;
}

}  // namespace

RT_CODE Kalvrin::Kalvrin(std::shared_ptr<Platform::Runtime> usedRuntime,
                         std::shared_ptr<Platform::Model> usedModel, std::uint64_t sequenceSize,
                         std::uint64_t channelCount)
    : runtime(std::move(usedRuntime)), model(std::move(usedModel)), layout(*model), info(*model),
      device(CreateCpuDevice(*runtime)), session(CreateSession(*runtime, model, device)),
      binding(CreateBinding(*runtime, session)),
      geometry(RequestedGeometry(*model, layout, info, sequenceSize, channelCount)),
      windows(MakeWindowPair(info.GetWindowShape(), geometry.windowLength)), spectralPath(layout),
      classList(info), restClass(RestName), allClasses({&classList, &restClass}) {
  Reconfigure(geometry.channelCount, geometry.sequenceSize, binding);
  for (std::uint32_t id = 0; id < allClasses.GetCount(); ++id)
    allClasses.SetGain(id, 0.0F);
}

RT_CODE Kalvrin::~Kalvrin() = default;

RT_CODE std::uint64_t Kalvrin::GetSequenceSize() const {
  return geometry.sequenceSize;
}
RT_CODE std::uint32_t Kalvrin::GetHopLength() const {
  return geometry.hopLength;
}
RT_CODE std::int32_t Kalvrin::IsSpectral() const {
  return spectralPath.IsSpectral() ? 1 : 0;
}
RT_CODE const ProcessingGeometry& Kalvrin::GetGeometry() const {
  return geometry;
}
RT_CODE const WindowPair& Kalvrin::GetWindows() const {
  return windows;
}

RT_CODE std::int32_t Kalvrin::GetSampleRate() const {
  return FindMetadataDecimal(*model, SampleRateKey);
}

RT_CODE bool Kalvrin::SetMasterGain(float gain) {
  if (!(gain >= 0.0F)) return false;
  StoreGain(masterGain, gain);
  return true;
}

RT_CODE void Kalvrin::ResetGains() {
  StoreGain(masterGain, 1.0F);
  restClass.SetGain(0, 1.0F);
  for (std::uint32_t id = 0; id < classList.GetCount(); ++id)
    SetAudioClassGain(classList.GetName(id), 1.0F);
}

RT_CODE bool Kalvrin::SetAudioClassGain(const char16_t* name, float gain) {
  const std::int32_t id = FindAudioClass(*activeClasses, name);
  if (id < 0) return false;
  activeClasses->SetGain(static_cast<std::uint32_t>(id), gain);
  return true;
}

RT_CODE bool Kalvrin::SetChannelCount(std::uint64_t count) {
  return TryReconfigure(count, geometry.sequenceSize);
}

RT_CODE bool Kalvrin::SetSequenceSize(std::uint64_t size) {
  return TryReconfigure(geometry.channelCount, size);
}

RT_CODE bool Kalvrin::TryReconfigure(std::uint64_t newChannelCount,
                                     std::uint64_t newSequenceSize) noexcept {
  try {
    Reconfigure(newChannelCount, newSequenceSize, CreateBinding(*runtime, session));
    return true;
  } catch (...) {
    return false;
  }
}

RT_CODE ProcessingGeometry Kalvrin::GeometryWith(std::uint64_t newChannelCount,
                                                 std::uint64_t newSequenceSize) const {
  ProcessingGeometry changed = geometry;
  changed.channelCount = newChannelCount;
  changed.sequenceSize = newSequenceSize;
  return changed;
}

RT_CODE bool Kalvrin::Takes(std::uint64_t channelCount, std::uint64_t sequenceSize) const {
  try {
    ShapesAt(GeometryWith(channelCount, sequenceSize), layout, classList.GetCount());
    return true;
  } catch (const ContractException&) {
    return false;
  }
}

RT_CODE void Kalvrin::Reconfigure(std::uint64_t newChannelCount, std::uint64_t newSequenceSize,
                                  std::shared_ptr<Platform::Binding> newBinding) {
  const ProcessingGeometry newGeometry = GeometryWith(newChannelCount, newSequenceSize);
  ModelBinding newTensors(*runtime, *model, layout, classList.GetCount(), newGeometry);
  std::vector<std::int32_t> newIndex = MapChannelBindings(newChannelCount);
  BindTensors(*newBinding, newTensors);
  // from here on nothing fails
  geometry = newGeometry;
  std::swap(channelClassIndex, newIndex);
  std::swap(tensors, newTensors);
  std::swap(binding, newBinding);
}

RT_CODE std::vector<std::int32_t> Kalvrin::MapChannelBindings(std::uint64_t channelCount) const {
  std::vector<std::int32_t> index(channelCount, -1);
  for (const ChannelBinding& bound : info.GetChannelBindings()) {
    if (bound.channel < channelCount)
      index[bound.channel] = FindAudioClass(*activeClasses, bound.audioClass.c_str());
  }
  return index;
}

RT_CODE void Kalvrin::EvaluateWindow(const float* input, float* output) {
  const auto channelCount = static_cast<std::int32_t>(geometry.channelCount);
  const auto frames = static_cast<std::int32_t>(tensors.workBuffer.channelLength);

  SignalPrimitives::Deinterleave(input, channelCount, frames, tensors.newWindows.data());
  WithTensorData(*tensors.inputTensor, [this](float* tensor) { PackInput(tensor); });
  RunModel();
  const float restGain = LoadGain(masterGain) * restClass.GetGain(0);
  MixDry(restGain);
  WithTensorData(*tensors.outputTensor,
                 [this, restGain](float* tensor) { UnpackOutput(tensor, restGain); });
  SignalPrimitives::Interleave(tensors.workBuffer.channels.get(), channelCount, frames, output);
}

/// Runs `routine` on the floats of `tensor`, which are held during the call only.
template <class Routine>
[[gnu::always_inline]] inline void Kalvrin::WithTensorData(Platform::Tensor& tensor,
                                                           Routine routine) {
  void* data = nullptr;
  CheckResult(tensor.Acquire(data));
  struct Release {
    Platform::Tensor& tensor;
    ~Release() { tensor.Release(); }
  } release{tensor};
  routine(static_cast<float*>(data));
}

RT_CODE void Kalvrin::PackInput(float* tensor) {
  const ModelBinding& t = tensors;
  const std::uint64_t windows = geometry.sequenceSize + geometry.lookaheadBlocks;
  for (std::uint64_t channel = 0; channel < geometry.channelCount; ++channel) {
    const float* history = t.historyBuffer.channels[channel];
    if (spectralPath.IsSpectral())
      spectralPath.ForwardWindows(history, tensor, windows);
    else
      SignalPrimitives::Copy(history, tensor, t.historyBuffer.channelLength);
    tensor += windows * spectralPath.GetWindowStride();
  }
}

RT_CODE void Kalvrin::RunModel() {
  const FlushedDenormals mode;
  CheckResult(session->Evaluate(*binding, CorrelationId));
}

RT_CODE void Kalvrin::MixDry(float restGain) {
  const ModelBinding& t = tensors;
  const std::uint64_t kept = std::uint64_t{geometry.lookaheadBlocks} * geometry.windowLength;
  const std::uint64_t length = t.workBuffer.channelLength;
  for (std::uint64_t channel = 0; channel < geometry.channelCount; ++channel) {
    const std::int32_t id = channelClassIndex[channel];
    const float gain =
        id < 0 ? restGain
               : LoadGain(masterGain) * activeClasses->GetGain(static_cast<std::uint32_t>(id));
    float* history = t.historyBuffer.channels[channel];
    // the model's output belongs to the oldest windows of its input, so the dry signal is taken
    // there
    SignalPrimitives::MulC(history, gain, t.workBuffer.channels[channel], length);
    std::memmove(history, history + length, kept * sizeof(float));  // overlaps where L > S
  }
}

RT_CODE void Kalvrin::UnpackOutput(float* tensor, float restGain) {
  const ModelBinding& t = tensors;
  const std::uint64_t length = t.workBuffer.channelLength;
  const std::uint64_t channelStride = geometry.sequenceSize * spectralPath.GetWindowStride();
  // one channel and class at a time: its samples are mixed while they are in the cache
  for (std::uint64_t channel = 0; channel < geometry.channelCount; ++channel) {
    if (channelClassIndex[channel] >= 0) continue;
    float* const extracted = t.classBuffer.channels[channel];
    float* source = tensor + channel * channelStride;
    for (std::uint32_t id = 0; id < classList.GetCount(); ++id) {
      if (spectralPath.IsSpectral())
        spectralPath.InverseWindows(source, extracted, geometry.sequenceSize);
      else
        SignalPrimitives::Copy(source, extracted, length);
      source += geometry.channelCount * channelStride;
      const float classGain = classList.GetGain(id) * LoadGain(masterGain);
      SignalPrimitives::AddProductC(extracted, classGain - restGain, t.workBuffer.channels[channel],
                                    length);
    }
  }
}

}  // namespace Orvik::Tesmo::Dnn
