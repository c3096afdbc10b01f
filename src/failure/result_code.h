#pragma once

// Result codes of the platform boundary and the exception that each one becomes.

#include <cstddef>
#include <cstdint>

/// What an operation of the platform boundary answers: negative is a failure.
using ResultCode = std::int32_t;

/// The codes that mean something to the library; an implementation may return others.
namespace ResultCodes {
constexpr ResultCode FromBits(std::uint32_t bits) {
  return static_cast<ResultCode>(bits);
}

inline constexpr ResultCode Ok = 0;
inline constexpr ResultCode NotImplemented = FromBits(0x80004001);
inline constexpr ResultCode NoInterface = FromBits(0x80004002);
inline constexpr ResultCode Fail = FromBits(0x80004005);
inline constexpr ResultCode OutOfBounds = FromBits(0x8000000B);
inline constexpr ResultCode ChangedState = FromBits(0x8000000C);
inline constexpr ResultCode IllegalStateChange = FromBits(0x8000000D);
inline constexpr ResultCode IllegalMethodCall = FromBits(0x8000000E);
inline constexpr ResultCode IllegalDelegateAssignment = FromBits(0x80000018);
inline constexpr ResultCode WrongThread = FromBits(0x8001010E);
inline constexpr ResultCode ClassNotAvailable = FromBits(0x80040111);
inline constexpr ResultCode ClassNotRegistered = FromBits(0x80040154);
inline constexpr ResultCode FileNotFound = FromBits(0x80070002);
inline constexpr ResultCode AccessDenied = FromBits(0x80070005);
inline constexpr ResultCode OutOfMemory = FromBits(0x8007000E);
inline constexpr ResultCode InvalidArgument = FromBits(0x80070057);
inline constexpr ResultCode Canceled = FromBits(0x800704C7);
}  // namespace ResultCodes

/// Bytes of error information kept for a failure, the terminating zero included.
inline constexpr std::size_t ErrorInformationCapacity = 512;

/// For implementations of the platform: keeps `text` (cut where it is too long) for this thread,
/// until the next exception made from a failing code takes it over. Allocates nothing.
void HoldErrorInformation(const char* text) noexcept;

constexpr bool Failed(ResultCode code) {
  return code < 0;
}

namespace winrt {

/// Base of all platform failures. Not a std::exception: a handler for those does not see it.
/// Takes over the error information that the platform holds for the thread, if any.
class hresult_error {
public:
  explicit hresult_error(ResultCode code) noexcept;
  virtual ~hresult_error() = default;
  ResultCode code() const noexcept { return value; }
  /// What the platform said of the failure, cut to the room here; empty when it said nothing. It
  /// may quote a model, so any bytes can stand in it.
  const char* message() const noexcept { return text; }

private:
  ResultCode value;
  char text[ErrorInformationCapacity];
};

template <ResultCode Code>
struct hresult_error_of : hresult_error {
  hresult_error_of() noexcept : hresult_error(Code) {}
};

// clang-format off
struct hresult_access_denied final : hresult_error_of<ResultCodes::AccessDenied> {};
struct hresult_wrong_thread final : hresult_error_of<ResultCodes::WrongThread> {};
struct hresult_not_implemented final : hresult_error_of<ResultCodes::NotImplemented> {};
struct hresult_invalid_argument final : hresult_error_of<ResultCodes::InvalidArgument> {};
struct hresult_out_of_bounds final : hresult_error_of<ResultCodes::OutOfBounds> {};
struct hresult_no_interface final : hresult_error_of<ResultCodes::NoInterface> {};
struct hresult_class_not_available final : hresult_error_of<ResultCodes::ClassNotAvailable> {};
struct hresult_class_not_registered final : hresult_error_of<ResultCodes::ClassNotRegistered> {};
struct hresult_changed_state final : hresult_error_of<ResultCodes::ChangedState> {};
struct hresult_illegal_method_call final : hresult_error_of<ResultCodes::IllegalMethodCall> {};
struct hresult_illegal_state_change final : hresult_error_of<ResultCodes::IllegalStateChange> {};
struct hresult_illegal_delegate_assignment final : hresult_error_of<ResultCodes::IllegalDelegateAssignment> {};
struct hresult_canceled final : hresult_error_of<ResultCodes::Canceled> {};
// clang-format on

}  // namespace winrt

/// The one road from a failing code of the platform to an exception: std::bad_alloc for
/// OutOfMemory, the class of the code above, winrt::hresult_error for any other.
[[noreturn]] void ThrowForResultCode(ResultCode code);

/// Throws when `code` is a failure. Stands around every call of the platform.
inline void CheckResult(ResultCode code) {
  if (Failed(code)) [[unlikely]]
    ThrowForResultCode(code);
}

/// The code for the exception being handled, for objects that the platform calls back. Call it
/// inside a catch block only; an exception outside the families above is thrown on.
ResultCode ResultCodeForCurrentException();
