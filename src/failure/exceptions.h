#pragma once

// The exception families of the library. A failure is an exception from where it arises to one of
// three boundaries: CreateStreamProcessor (null), the core's SetChannelCount and SetSequenceSize
// (false), and a host that calls ProcessBlock. No failure is logged; its text lives in the object.

#include <cstdint>
#include <exception>

namespace Orvik::Tesmo {

/// A model or a caller did what the contract does not allow. `text` is a static string.
class ContractException : public std::exception {
public:
  explicit ContractException(const char* text) noexcept : text(text) {}
  const char* what() const noexcept override { return text; }

private:
  const char* text;
};

}  // namespace Orvik::Tesmo

namespace WinML {

/// A model that does not fit the automatic binding of tensors. `text` is a static string.
class CException : public std::exception {
public:
  explicit CException(const char* text) noexcept : text(text) {}
  const char* what() const noexcept override { return text; }

private:
  const char* text;
};

}  // namespace WinML

namespace DSP {

/// A transform plan that cannot be made: the failed kernel call and its status. Thrown by value.
struct IPPException {
  const char16_t* message;  ///< static
  std::int32_t status;
};

}  // namespace DSP
