#include "kalvrin.h"

#include "built_stream.h"
#include "runtime/model_binding.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

using namespace Orvik::Tesmo;

struct kalvrin_stream {
  C::BuiltStream built;
  Dnn::PlanarBuffer block;  // for interleaved audio
  std::int32_t continuation = 0;
};

struct kalvrin_model {
  C::LoadedModel loaded;
};

namespace {

bool IsGain(float gain) {
  return gain >= 0 && gain <= std::numeric_limits<float>::max();
}

char Folded(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter;
}

bool EqualIgnoringCase(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, Folded, Folded);
}

/// A text cut to its buffer, between two characters.
void CopyReason(std::string_view text, char* reason, std::size_t size) {
  if (!reason || size == 0) return;
  std::size_t length = std::min(text.size(), size - 1);
  if (length < text.size())
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
      --length;
  std::copy_n(text.data(), length, reason);
  reason[length] = '\0';
}

/// Runs `work` and turns whatever it throws into `onFailure`, or what memory wants.
template <class Work>
kalvrin_status Guarded(kalvrin_status onFailure, Work work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return KALVRIN_OUT_OF_MEMORY;
  } catch (...) {
    return onFailure;
  }
}

std::unique_ptr<kalvrin_stream> MakeStream(const C::LoadedModel& model,
                                           const kalvrin_request* request, int rateHz) {
  const kalvrin_request wanted = request ? *request : kalvrin_request{};
  auto stream = std::make_unique<kalvrin_stream>();
  stream->built = model.BuildStream({wanted.channels, wanted.windows, wanted.block_frames}, rateHz);
  const kalvrin_sizes& sizes = stream->built.sizes;
  stream->block = Dnn::PlanarBuffer(sizes.channels, sizes.block_frames);
  return stream;
}

/// Makes what `result` shall point to, or says why there is none.
template <class Object, class Make>
kalvrin_status Created(Object** result, char* reason, std::size_t reasonSize, Make make) noexcept {
  CopyReason({}, reason, reasonSize);
  if (!result) return KALVRIN_INVALID_ARGUMENT;
  *result = nullptr;
  const kalvrin_status status = Guarded(KALVRIN_MODEL_REFUSED, [&] {
    try {
      *result = make().release();
      return KALVRIN_OK;
    } catch (const C::Failure& failure) {
      CopyReason(failure.reason, reason, reasonSize);
      return failure.status;
    }
  });
  if (status == KALVRIN_OUT_OF_MEMORY && reason && reasonSize != 0 && *reason == '\0')
    CopyReason(kalvrin_status_text(status), reason, reasonSize);
  return status;
}

void RequireModel(const void* model, std::size_t size) {
  if (!model || size == 0 || size > std::numeric_limits<std::uint32_t>::max())
    throw C::Failure{KALVRIN_INVALID_ARGUMENT, "there is no model, or one of 4 GiB or more"};
}

kalvrin_status TextAt(const std::string* text, const char** result) {
  if (!text) return KALVRIN_NOT_FOUND;
  *result = text->c_str();
  return KALVRIN_OK;
}

void Run(kalvrin_stream& stream, const float* const* input, float* const* output,
         std::size_t frames) {
  // Should the model fail, the next block begins anew: the frames that it failed on would wait in
  // the stream, and fail again.
  const std::int32_t continuation = std::exchange(stream.continuation, 0);
  stream.built.processor->ProcessBlock(input, output, frames, continuation);
  stream.continuation = 1;
}

}  // namespace

kalvrin_status kalvrin_create(const void* model, size_t model_size, const kalvrin_request* request,
                              char* reason, size_t reason_size, kalvrin_stream** stream) {
  return Created(stream, reason, reason_size, [&] {
    RequireModel(model, model_size);
    return MakeStream(C::LoadedModel(model, model_size), request, 0);
  });
}

kalvrin_status kalvrin_load_model(const void* model, size_t model_size, char* reason,
                                  size_t reason_size, kalvrin_model** loaded) {
  return Created(loaded, reason, reason_size, [&] {
    RequireModel(model, model_size);
    return std::unique_ptr<kalvrin_model>(new kalvrin_model{{model, model_size}});
  });
}

kalvrin_status kalvrin_create_from(const kalvrin_model* model, const kalvrin_request* request,
                                   char* reason, size_t reason_size, kalvrin_stream** stream) {
  return kalvrin_create_at_rate(model, request, 0, reason, reason_size, stream);
}

kalvrin_status kalvrin_create_at_rate(const kalvrin_model* model, const kalvrin_request* request,
                                      int sample_rate_hz, char* reason, size_t reason_size,
                                      kalvrin_stream** stream) {
  return Created(stream, reason, reason_size, [&] {
    if (!model) throw C::Failure{KALVRIN_INVALID_ARGUMENT, "there is no model"};
    return MakeStream(model->loaded, request, sample_rate_hz);
  });
}

void kalvrin_release_model(kalvrin_model* model) {
  delete model;
}

void kalvrin_destroy(kalvrin_stream* stream) {
  delete stream;
}

kalvrin_status kalvrin_get_sizes(const kalvrin_stream* stream, kalvrin_sizes* sizes) {
  if (!stream || !sizes) return KALVRIN_INVALID_ARGUMENT;
  *sizes = stream->built.sizes;
  return KALVRIN_OK;
}

kalvrin_status kalvrin_get_class_name(const kalvrin_stream* stream, size_t index,
                                      const char** name) {
  if (!stream || !name) return KALVRIN_INVALID_ARGUMENT;
  const auto& classes = stream->built.classes;
  return TextAt(index < classes.size() ? &classes[index].shown : nullptr, name);
}

kalvrin_status kalvrin_get_note(const kalvrin_stream* stream, size_t index, const char** note) {
  if (!stream || !note) return KALVRIN_INVALID_ARGUMENT;
  const auto& notes = stream->built.notes;
  return TextAt(index < notes.size() ? &notes[index] : nullptr, note);
}

kalvrin_status kalvrin_set_gain(kalvrin_stream* stream, const char* name, float gain) {
  if (!stream || !name || !IsGain(gain)) return KALVRIN_INVALID_ARGUMENT;
  return Guarded(KALVRIN_INVALID_ARGUMENT, [&] {
    for (const C::ClassName& known : stream->built.classes)
      if (EqualIgnoringCase(known.shown, name) &&
          stream->built.processor->SetAudioClassGain(known.wide.c_str(), gain))
        return KALVRIN_OK;
    return KALVRIN_NOT_FOUND;
  });
}

kalvrin_status kalvrin_set_master_gain(kalvrin_stream* stream, float gain) {
  if (!stream || !IsGain(gain)) return KALVRIN_INVALID_ARGUMENT;
  return Guarded(KALVRIN_INVALID_ARGUMENT, [&] {
    return stream->built.processor->SetMasterGain(gain) ? KALVRIN_OK : KALVRIN_INVALID_ARGUMENT;
  });
}

kalvrin_status kalvrin_set_high_band(kalvrin_stream* stream, kalvrin_high_band choice) {
  if (!stream || (choice != KALVRIN_HIGH_BAND_FOLLOW && choice != KALVRIN_HIGH_BAND_REST))
    return KALVRIN_INVALID_ARGUMENT;
  if (stream->built.fullBand)
    stream->built.fullBand->SetHighBand(
        choice == KALVRIN_HIGH_BAND_REST ? Hosting::HighBand::Rest : Hosting::HighBand::Follow);
  return KALVRIN_OK;
}

kalvrin_status kalvrin_reset_gains(kalvrin_stream* stream) {
  if (!stream) return KALVRIN_INVALID_ARGUMENT;
  return Guarded(KALVRIN_ENGINE_FAILED, [&] {
    stream->built.processor->ResetGains();
    return KALVRIN_OK;
  });
}

kalvrin_status kalvrin_process_planar(kalvrin_stream* stream, const float* const* input,
                                      float* const* output, size_t frames) {
  if (!stream || !input || !output || frames > stream->built.sizes.block_frames)
    return KALVRIN_INVALID_ARGUMENT;
  return Guarded(KALVRIN_ENGINE_FAILED, [&] {
    Run(*stream, input, output, frames);
    return KALVRIN_OK;
  });
}

kalvrin_status kalvrin_process_interleaved(kalvrin_stream* stream, const float* input,
                                           float* output, size_t frames) {
  if (!stream || !input || !output || frames > stream->built.sizes.block_frames)
    return KALVRIN_INVALID_ARGUMENT;
  return Guarded(KALVRIN_ENGINE_FAILED, [&] {
    const std::size_t count = stream->block.channelCount;
    float* const* const channels = stream->block.channels.get();
    for (std::size_t c = 0; c < count; ++c)
      for (std::size_t i = 0; i < frames; ++i)
        channels[c][i] = input[i * count + c];
    Run(*stream, channels, channels, frames);
    for (std::size_t c = 0; c < count; ++c)
      for (std::size_t i = 0; i < frames; ++i)
        output[i * count + c] = channels[c][i];
    return KALVRIN_OK;
  });
}

kalvrin_status kalvrin_restart(kalvrin_stream* stream) {
  if (!stream) return KALVRIN_INVALID_ARGUMENT;
  return Guarded(KALVRIN_ENGINE_FAILED, [&] {
    stream->built.processor->SetSequenceSize(stream->built.sizes.windows);
    stream->continuation = 0;
    return KALVRIN_OK;
  });
}

const char* kalvrin_status_text(kalvrin_status status) {
  switch (status) {
  case KALVRIN_OK:
    return "all well";
  case KALVRIN_INVALID_ARGUMENT:
    return "an argument of the call is out of range";
  case KALVRIN_MODEL_REFUSED:
    return "the model is refused";
  case KALVRIN_ENGINE_MISSING:
    return "there is no usable inference engine";
  case KALVRIN_ENGINE_FAILED:
    return "the model failed in the inference engine";
  case KALVRIN_OUT_OF_MEMORY:
    return "there is not enough memory";
  case KALVRIN_NOT_FOUND:
    return "there is no such name or index";
  }
  return "an unknown status";
}

const char* kalvrin_version(void) {
  return KALVRIN_VERSION;
}
