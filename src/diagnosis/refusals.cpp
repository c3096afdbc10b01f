#include "diagnosis/refusals.h"

#include "diagnosis/report.h"
#include "failure/exceptions.h"
#include "failure/result_code.h"
#include "kernels/ipps.h"
#include "runtime/metadata.h"
#include "runtime/metadata_json.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <stdexcept>

namespace Orvik::Tesmo::Diagnosis {
namespace {

/// What a row's `found` looks at.
struct Circumstances {
  const ModelDescription& model;
  const StreamRequest& request;
  double error = 0;  ///< that the refusal states
};

std::string Feature(const char* side, const std::vector<FeatureDescription>& features) {
  if (features.empty()) return std::string("there is no ") + side;
  const FeatureDescription& feature = features.front();
  std::string text = std::string("the ") + side + " '" + feature.name + "' is " + TypeText(feature);
  if (feature.kind == Platform::FeatureKind::Tensor) text += " " + ShapeText(feature.shape);
  return text;
}

std::string Input(const Circumstances& c) {
  return Feature("input", c.model.inputs);
}
std::string Output(const Circumstances& c) {
  return Feature("output", c.model.outputs);
}
std::string Both(const Circumstances& c) {
  return Input(c) + ", " + Output(c);
}

std::string Metadata(const Circumstances& c, const char16_t* key) {
  const auto entry = c.model.metadata.find(key);
  if (entry == c.model.metadata.end()) return PrintableText(key) + " is missing";
  return PrintableText(key) + " is " + ShortText(entry->second);
}

template <const char16_t* Key>
std::string OfKey(const Circumstances& c) {
  return Metadata(c, Key);
}
constexpr char16_t lookaheadKey[] = u"LookaheadNumBlocks";
constexpr char16_t baselineKey[] = u"BaselineSequenceSize";
constexpr char16_t windowKey[] = u"WindowShape";

/// The side `Side` and the channels that it was to have.
template <std::string (*Side)(const Circumstances&)>
std::string AtChannels(const Circumstances& c) {
  return Side(c) + "; asked for: " + Counted(c.request.channelCount, "channel");
}

template <std::string (*Side)(const Circumstances&)>
std::string AtWindows(const Circumstances& c) {
  return Side(c) + "; asked for: " + Counted(c.request.sequenceSize, "window") + "; " +
         Metadata(c, u"LookaheadNumBlocks");
}

std::string Classes(const Circumstances& c) {
  return Output(c) + ", " + Metadata(c, u"AudioClassNames");
}

std::string States(const Circumstances& c) {
  std::string text;
  for (std::size_t i = 1; i < std::max(c.model.inputs.size(), c.model.outputs.size()); ++i) {
    const auto side = [i](const std::vector<FeatureDescription>& features) {
      return i < features.size() ? "'" + features[i].name + "' (" + TypeText(features[i]) + ")"
                                 : std::string("nothing");
    };
    text += (text.empty() ? "" : ", ") + side(c.model.inputs) + " with " + side(c.model.outputs);
  }
  return text.empty() ? "no state" : "states pair " + text;
}

std::string Request(const Circumstances& c) {
  return "asked for: " + Counted(c.request.channelCount, "channel") + ", " +
         Counted(c.request.sequenceSize, "window") + " per evaluation, blocks of " +
         Counted(c.request.blockFrames, "frame");
}

std::string SumError(const Circumstances& c) {
  char error[32];
  std::snprintf(error, sizeof error, "%.2g", c.error);
  return Metadata(c, windowKey) + "; the sum is off by up to " + error;
}

constexpr const char* channelFreedom =
    "use as many channels as the model fixes, or export it with a free channel dimension";
constexpr const char* sequenceFreedom =
    "ask for another --sequence, set BaselineSequenceSize in the model, or export it with a free "
    "sequence dimension";
constexpr const char* bothComponents =
    "[channels, windows, bins, 2] in and [classes, channels, windows, bins, 2] out";

/// What there is to say about a refusal besides its own text.
struct Row {
  RefusalReason reason;
  std::string (*found)(const Circumstances&);
  const char* expected;
  const char* change;
};
using enum RefusalReason;
const Row rows[] = {
    {InputIsNoTensor, Input, "a float32 tensor as first input",
     "put the audio input first, and make it a tensor"},
    {OutputIsNoTensor, Output, "a float32 tensor as first output",
     "put the audio output first, and make it a tensor"},
    {InputIsNotFloat, Input, "float32 audio",
     "export the model with a float32 input; a Cast node inside can change the type"},
    {OutputIsNotFloat, Output, "float32 audio",
     "export the model with a float32 output; a Cast node inside can change the type"},
    {InputRank, Input,
     "[channels, windows, samples], the first ones left out at will, or "
     "[channels, windows, bins, 2]",
     "reshape the input inside the model (Reshape, Squeeze)"},
    {OutputRank, Output,
     "[classes, channels, windows, samples], the first ones left out at will, or "
     "[classes, channels, windows, bins, 2]",
     "reshape the output inside the model (Reshape, Squeeze)"},
    {WindowLengthIsFree, Input, "a number of samples or bins in the features dimension",
     "export the model with a fixed window length"},
    {ComponentsOnOneSide, Both, bothComponents,
     "give both sides the components dimension, or neither"},
    {InputComponents, Input, bothComponents,
     "give the spectrum as pairs of real and imaginary part"},
    {OutputComponents, Output, bothComponents,
     "give the spectrum as pairs of real and imaginary part"},
    {WindowLengthIsOdd, Input, "an even number of samples",
     "export the model with an even window length"},
    {SpectrumIsTooShort, Input, "n + 1 bins for 2n samples",
     "export the model with a longer window"},
    {LookaheadIsNegative, OfKey<lookaheadKey>, "a number from 0",
     "correct LookaheadNumBlocks in the model's metadata"},
    {BaselineIsNegative, OfKey<baselineKey>, "a number from 0, 0 for no preference",
     "correct BaselineSequenceSize in the model's metadata"},
    {WindowShapeForm, OfKey<windowKey>,
     R"("root-hann", "hann", "vorbis" or "rectangular"; {"shape": "hann", "length": 400}; )"
     R"({"analysis": [...], "synthesis": [...]} with as many numbers in both, or analysis alone)",
     "correct WindowShape in the model's metadata"},
    {WindowIsTooLong,
     [](const Circumstances& c) { return Metadata(c, windowKey) + ", " + Input(c); },
     "a window as long as the model's windows (2n - 2 samples for n bins), or shorter",
     "correct WindowShape in the model's metadata"},
    {WindowsDoNotAddUp, SumError,
     "analysis(n) synthesis(n) + analysis(n + hop) synthesis(n + hop) within 0.00001 of 1 for "
     "every n, and no gap between one analysis window and the next",
     "scale the synthesis window, or leave it out and the library makes it; take a window that is "
     "longer than the hop"},
    {StateIsNoTensor, States, "tensors for all inputs from the second on",
     "make every state of the model a tensor"},
    {InputSequenceIsFixed, AtWindows<Input>,
     "the input's sequence dimension free, or the windows asked for plus the lookahead",
     sequenceFreedom},
    {OutputSequenceIsFixed, AtWindows<Output>,
     "the output's sequence dimension free, or the windows asked for without the lookahead",
     sequenceFreedom},
    {InputChannelsAreFixed, AtChannels<Input>,
     "the input's channel dimension free, or the channels asked for", channelFreedom},
    {OutputChannelsAreFixed, AtChannels<Output>,
     "the output's channel dimension free, or the channels asked for", channelFreedom},
    {ClassCount, Classes,
     "as many names in AudioClassNames as the output has classes (missing names count as one)",
     "correct AudioClassNames in the model's metadata"},
    {InputLacksChannels, AtChannels<Input>, "1 channel",
     "use 1 channel, or give the input a channel dimension"},
    {OutputLacksChannels, AtChannels<Output>, "1 channel",
     "use 1 channel, or give the output a channel dimension"},
    {InputLacksSequence, AtWindows<Input>, "1 window, no lookahead",
     "set BaselineSequenceSize to 1 and LookaheadNumBlocks to 0, or ask for --sequence 1"},
    {OutputLacksSequence, AtWindows<Output>, "1 window",
     "set BaselineSequenceSize to 1 in the model's metadata, or ask for --sequence 1"},
    {OutputLacksClasses, Classes, "one class",
     "give the output a class dimension, or AudioClassNames one name"},
    {OutputWindowsAreShort, Both, "as many samples or bins on the output as on the input",
     "export the model with equal window lengths in and out"},
    {StatesDoNotPair, States,
     "as many outputs as inputs, input and output number i (from the second on) one state of one "
     "type and shape",
     "give every state input its output, in the same order"},
    {StateKindIsInvalid, States, "states of a type that ONNX defines",
     "export the model with another type of state"},
    {StateKindIsUnsupported, States, "states of numbers, booleans or strings",
     "export the model with another type of state (complex numbers as pairs)"},
    {SizesOutOfRange, Request, "sizes whose buffers stay below 2^31 samples",
     "ask for smaller sizes"},
    {NoChannel, Request, "1 channel or more", "use 1 channel or more"},
    {NoWindow, Request, "1 window or more", "ask for --sequence 1 or more"},
};

/// Keys whose values are read as JSON.
constexpr const char16_t* jsonKeys[] = {u"SampleRate",
                                        u"LookaheadNumBlocks",
                                        u"OverlapInSamples",
                                        u"BaselineSequenceSize",
                                        u"AudioClassNames",
                                        u"ChannelToAudioClassBindings",
                                        windowKey};

/// The first metadata value that is no JSON; null where all are.
const char16_t* MalformedKey(const ModelDescription& model) {
  for (const char16_t* key : jsonKeys) {
    const auto entry = model.metadata.find(key);
    if (entry == model.metadata.end()) continue;
    try {
      Dnn::ParseMetadataJson(entry->second);
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception&) {
      return key;
    }
  }
  return nullptr;
}

Explanation ExplainRefusal(RefusalReason reason, const Circumstances& circumstances) {
  const auto row = std::ranges::find(rows, reason, &Row::reason);
  if (row == std::end(rows)) return {TextOf(reason), Request(circumstances), {}, {}};
  return {TextOf(reason), row->found(circumstances), row->expected, row->change};
}

/// What the parser of the metadata, or a conversion of text, fails with.
Explanation ExplainText(const std::string& text, const Circumstances& circumstances) {
  if (const char16_t* key = MalformedKey(circumstances.model))
    return {"the metadata value of " + PrintableText(key) + " is not JSON",
            Metadata(circumstances, key),
            "a whole JSON text: 16000 for a number, [\"Speech\",\"Music\"] for names, "
            "[[0,\"Speech\"]] for bindings, \"hann\" for a window (the quotes belong to it)",
            "correct " + PrintableText(key) + " in the model's metadata"};
  return {text, Both(circumstances), {}, "correct the model, or ask for other sizes"};
}

Explanation ExplainEngine(const std::string& words, const Circumstances& circumstances) {
  const ModelDescription& model = circumstances.model;
  if (model.inputs.empty() || model.outputs.empty())
    return {"the model has no audio", Both(circumstances), "an input and an output for the audio",
            "export the model with an input named 'input' and an output named 'output'"};
  if (model.inputs.front().name != "input" || model.outputs.front().name != "output")
    return {"the audio of the model does not have the names that belong to it", Both(circumstances),
            "a first input named 'input' and a first output named 'output'",
            "rename the first input and the first output, or put the audio first"};
  return {"the inference engine cannot run the model with these sizes: " + words,
          Request(circumstances) + "; " + Both(circumstances),
          "a model that runs at these sizes with all its states at zero",
          "correct the model where the engine says, or ask for other sizes"};
}

std::string TextOf(const winrt::hresult_error& error) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(error.code()));
  if (*error.message()) return PrintableText(std::string_view(error.message()));
  return std::string("it gives the code ") + code;
}

std::string TextOf(const DSP::IPPException& error) {
  if (error.status == ippStsMemAllocErr) return "there is not enough memory";
  return PrintableText(error.message) + ", status " + std::to_string(error.status);
}

}  // namespace

Explanation ExplainCurrentException(const ModelDescription* model, const StreamRequest& request) {
  static const ModelDescription unknown;
  Circumstances circumstances{model ? *model : unknown, request};
  try {
    throw;
  } catch (const winrt::hresult_error& error) {
    if (model) return ExplainEngine(TextOf(error), circumstances);
    return {"the file is no model that the inference engine can load: " + TextOf(error),
            {},
            "an ONNX model in one file, without data in files beside it",
            "export the model anew, with its weights inside the file"};
  } catch (const std::bad_alloc&) {
    return {"there is not enough memory for the model at these sizes", Request(circumstances),
            "sizes that fit into memory", "ask for smaller sizes"};
  } catch (const DSP::IPPException& error) {
    return {"no transform can be made for the window: " + TextOf(error), Input(circumstances),
            "a window length within the range of the transforms",
            "export the model with a shorter window"};
  } catch (const ContractException& error) {
    circumstances.error = error.Error();
    return ExplainRefusal(error.Reason(), circumstances);
  } catch (const WinML::CException& error) {
    return ExplainRefusal(error.Reason(), circumstances);
  } catch (const UnrelatedFailure&) {
    throw;
  } catch (const std::exception& error) {
    return ExplainText(error.what(), circumstances);
  }
}

std::string TextOfCurrentException() {
  try {
    throw;
  } catch (const winrt::hresult_error& error) {
    return TextOf(error);
  } catch (const DSP::IPPException& error) {
    return TextOf(error);
  } catch (const std::bad_alloc&) {
    return "there is not enough memory";
  } catch (const std::exception& error) {
    return error.what();
  }
}

}  // namespace Orvik::Tesmo::Diagnosis
