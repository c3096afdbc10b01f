#include "failure/exceptions.h"

#include <cstddef>
#include <iterator>

namespace Orvik::Tesmo {

namespace {

struct Row {
  RefusalReason reason;
  const char* text;
};

using enum RefusalReason;
constexpr Row rows[] = {
    {InputIsNoTensor, "The first input is not a tensor"},
    {OutputIsNoTensor, "The first output is not a tensor"},
    {InputIsNotFloat, "The first input is not a tensor of 32-bit floats"},
    {OutputIsNotFloat, "The first output is not a tensor of 32-bit floats"},
    {InputRank, "The first input must have 1 to 4 dimensions"},
    {OutputRank, "The first output must have 1 to 5 dimensions"},
    {WindowLengthIsFree, "The window length (Features) of the input must be fixed"},
    {ComponentsOnOneSide,
     "Spectra (Components) must be on the input (4 dimensions) and on the output (5 dimensions), "
     "or on neither"},
    {InputComponents, "The last dimension of a spectral input must be 2: real and imaginary part"},
    {OutputComponents,
     "The last dimension of a spectral output must be 2: real and imaginary part"},
    {WindowLengthIsOdd, "The window length (Features) must be even"},
    {SpectrumIsTooShort, "A spectrum must have 2 bins (Features) or more"},
    {StateIsNoTensor, "Unexpected feature kind"},
    {StatesDoNotPair, "Model is not compatible with automatic buffer binding"},
    {StateKindIsInvalid, "Invalid tensor kind"},
    {StateKindIsUnsupported, "Kensor kind is not supported yet"},
    {LookaheadIsNegative, "LookaheadNumBlocks of the model is negative"},
    {BaselineIsNegative, "BaselineSequenceSize of the model is negative"},
    {WindowShapeForm, "WindowShape of the model has none of the forms that it may have"},
    {WindowIsTooLong, "The window of WindowShape is longer than the model's windows"},
    {WindowsDoNotAddUp, "The windows of WindowShape do not add up to 1 at half overlap"},
    {InputSequenceIsFixed, "Input sequence size cannot be changed on this model"},
    {OutputSequenceIsFixed, "Output sequence size cannot be changed on this model"},
    {InputChannelsAreFixed, "Number of input channels cannot be changed on this model"},
    {OutputChannelsAreFixed, "Number of output channels cannot be changed on this model"},
    {ClassCount, "Incorrect number of extracted audio classes"},
    {InputLacksChannels, "The input has no channel dimension: only 1 channel is possible"},
    {OutputLacksChannels, "The output has no channel dimension: only 1 channel is possible"},
    {InputLacksSequence,
     "The input has no sequence dimension: only sequence size 1 without lookahead is possible"},
    {OutputLacksSequence, "The output has no sequence dimension: only sequence size 1 is possible"},
    {OutputLacksClasses, "The output has no class dimension: only 1 audio class is possible"},
    {OutputWindowsAreShort, "The output's windows (Features) must not be shorter than the input's"},
    {NoModelBytes, "There are no model bytes"},
    {NoChannel, "The number of channels must be at least 1"},
    {NoWindow, "The sequence size must be at least 1"},
    {SizesOutOfRange, "Stream sizes out of range"},
    {ClassIdOutOfRange, "Audio class ID out of range"},
    {ClassIdOfInfoOutOfRange, "Audio class ID is out of range"},
    {GainOutOfRange, "Linear gain out of range"},
};

constexpr bool EveryRowIsAtItsReason() {
  for (std::size_t i = 0; i < std::size(rows); ++i)
    if (static_cast<std::size_t>(rows[i].reason) != i) return false;
  return std::size(rows) == static_cast<std::size_t>(Count);
}
static_assert(EveryRowIsAtItsReason());

}  // namespace

const char* TextOf(RefusalReason reason) noexcept {
  return rows[static_cast<std::size_t>(reason)].text;
}

}  // namespace Orvik::Tesmo
