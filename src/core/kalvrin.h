#pragma once

#include "core/audio_class_set.h"
#include "core/spectral_feature_path.h"
#include "platform/platform.h"
#include "runtime/model_binding.h"
#include "runtime/model_info.h"
#include "runtime/model_layout.h"
#include "runtime/processing_geometry.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// One loaded model and everything around it: evaluates windows of audio and mixes the model's
/// classes with the remainder of the dry signal by the gains.
///
/// A new core has every gain at 0: its output is silence. The first evaluation after construction
/// or a change of size sees lookahead windows of silence before its own, and recurrent states of
/// zero.
///
/// Real time: EvaluateWindow allocates nothing of the library's own and takes no lock.
/// Threads: one operation at a time, but the gain operations may run during EvaluateWindow.
class Kalvrin {
public:
  /// Does all the slow work but the loading. `model` is one that `runtime` has loaded; both are
  /// kept, and cores may share them. `sequenceSize`: windows per evaluation, S; 0 takes the model's
  /// own, else 4. `channelCount`: C, from 1.
  /// Throws ContractException and WinML::CException for a model or sizes outside the contract, the
  /// JSON parser's exceptions, std::range_error, DSP::IPPException, std::bad_alloc, and the
  /// platform's failures.
  Kalvrin(std::shared_ptr<Platform::Runtime> runtime, std::shared_ptr<Platform::Model> model,
          std::uint64_t sequenceSize, std::uint64_t channelCount);
  virtual ~Kalvrin();
  Kalvrin(const Kalvrin&) = delete;
  Kalvrin& operator=(const Kalvrin&) = delete;

  /// `input` and `output`: S windows of W interleaved frames of C channels; distinct or the same.
  /// The output windows are later than the input's by the lookahead. Throws the platform's failure
  /// where the model fails: `output` is then not written, the floating-point mode is what it was,
  /// and the next call works on from the history before the failed one.
  void EvaluateWindow(const float* input, float* output);

  std::uint64_t GetSequenceSize() const;
  std::uint32_t GetHopLength() const;
  std::int32_t IsSpectral() const;
  /// In Hz, 0 where the model does not say. Throws where the metadata cannot be read.
  std::int32_t GetSampleRate() const;
  const ProcessingGeometry& GetGeometry() const;
  /// The windows that the model declares; empty where it declares none.
  const WindowPair& GetWindows() const;

  /// False, and no change, where `gain` is negative or NaN.
  bool SetMasterGain(float gain);
  /// Master, Rest and, for each extracted class, the first class of its name become 1.
  void ResetGains();
  /// The first class of the name: an extracted one, or "Rest". False where there is none or `name`
  /// is null. Throws ContractException where there is one and `gain` is below 0.
  bool SetAudioClassGain(const char16_t* name, float gain);

  /// Whether these sizes are within the contract and the model has them. Takes no memory for them:
  /// a change can still be refused for want of it, or by the engine. Throws std::bad_alloc.
  bool Takes(std::uint64_t channelCount, std::uint64_t sequenceSize) const;
  /// Rebuild everything that has the size of a geometry, beside what is in use, and switch to it:
  /// gains stay, history and recurrent states start again from zero. False, and no change at all,
  /// where the size is 0, or the model, the engine or memory refuses it.
  bool SetChannelCount(std::uint64_t count);
  bool SetSequenceSize(std::uint64_t size);

private:
  /// `newBinding` is one in which nothing is bound yet.
  void Reconfigure(std::uint64_t newChannelCount, std::uint64_t newSequenceSize,
                   std::shared_ptr<Platform::Binding> newBinding);
  bool TryReconfigure(std::uint64_t newChannelCount, std::uint64_t newSequenceSize) noexcept;
  ProcessingGeometry GeometryWith(std::uint64_t newChannelCount,
                                  std::uint64_t newSequenceSize) const;
  /// The id in `allClasses` of the class that each channel is bound to; -1 for none.
  std::vector<std::int32_t> MapChannelBindings(std::uint64_t channelCount) const;

  template <class Routine>
  void WithTensorData(Platform::Tensor& tensor, Routine routine);
  void PackInput(float* tensor);
  void RunModel();
  /// `restGain`: the remainder's gain with the master gain in it.
  void MixDry(float restGain);
  void UnpackOutput(float* tensor, float restGain);

  std::shared_ptr<Platform::Runtime> runtime;
  std::shared_ptr<Platform::Model> model;
  ModelLayout layout;
  ModelInfo info;
  std::shared_ptr<Platform::Device> device;
  std::shared_ptr<Platform::Session> session;
  std::shared_ptr<Platform::Binding> binding;
  ProcessingGeometry geometry;
  WindowPair windows;
  SpectralFeaturePath spectralPath;
  ModelBinding tensors;
  AudioClassList classList;
  SingleAudioClass restClass;
  ConcatenatedAudioClassSet allClasses;
  AudioClassSet* activeClasses = &allClasses;  ///< where names are looked up
  float masterGain = 0.0F;
  std::vector<std::int32_t> channelClassIndex;
};

}  // namespace Orvik::Tesmo::Dnn
