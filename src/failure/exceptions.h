#pragma once

// The exception families of the library. A failure is an exception from where it arises to one of
// three boundaries: CreateStreamProcessor (null), the core's SetChannelCount and SetSequenceSize
// (false), and a host that calls ProcessBlock. No failure is logged; its text lives in the object.

#include <cstdint>
#include <exception>

namespace Orvik::Tesmo {

/// What a model, or a caller, did that the contract does not allow.
enum class RefusalReason : std::uint8_t {
  // the model's tensors
  InputIsNoTensor,
  OutputIsNoTensor,
  InputIsNotFloat,
  OutputIsNotFloat,
  InputRank,
  OutputRank,
  WindowLengthIsFree,
  ComponentsOnOneSide,
  InputComponents,
  OutputComponents,
  WindowLengthIsOdd,
  SpectrumIsTooShort,
  StateIsNoTensor,
  StatesDoNotPair,
  StateKindIsInvalid,
  StateKindIsUnsupported,
  // its metadata
  LookaheadIsNegative,
  BaselineIsNegative,
  WindowShapeForm,
  WindowIsTooLong,
  WindowsDoNotAddUp,
  // the model at the sizes of a stream
  InputSequenceIsFixed,
  OutputSequenceIsFixed,
  InputChannelsAreFixed,
  OutputChannelsAreFixed,
  ClassCount,
  InputLacksChannels,
  OutputLacksChannels,
  InputLacksSequence,
  OutputLacksSequence,
  OutputLacksClasses,
  OutputWindowsAreShort,
  // the sizes alone
  NoModelBytes,
  NoChannel,
  NoWindow,
  SizesOutOfRange,
  // calls on a stream
  ClassIdOutOfRange,
  ClassIdOfInfoOutOfRange,
  GainOutOfRange,
  Count,
};

/// The static text of a refusal's exception.
const char* TextOf(RefusalReason reason) noexcept;

/// A model or a caller did what the contract does not allow.
class ContractException : public std::exception {
public:
  explicit ContractException(RefusalReason reason, double error = 0) noexcept
      : reason(reason), error(error) {}
  const char* what() const noexcept override { return TextOf(reason); }
  RefusalReason Reason() const noexcept { return reason; }
  /// Of WindowsDoNotAddUp: how far their sum is from 1.
  double Error() const noexcept { return error; }

private:
  RefusalReason reason;
  double error;
};

}  // namespace Orvik::Tesmo

namespace WinML {

/// A model that does not fit the automatic binding of tensors.
class CException : public std::exception {
public:
  explicit CException(Orvik::Tesmo::RefusalReason reason) noexcept : reason(reason) {}
  const char* what() const noexcept override { return TextOf(reason); }
  Orvik::Tesmo::RefusalReason Reason() const noexcept { return reason; }

private:
  Orvik::Tesmo::RefusalReason reason;
};

}  // namespace WinML

namespace DSP {

/// A transform plan that cannot be made: the failed kernel call and its status. Thrown by value.
struct IPPException {
  const char16_t* message;  ///< static
  std::int32_t status;
};

}  // namespace DSP
