#include "platform/onnxruntime/failure.h"

#include <cstring>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

/// The engine has no code for memory running out; these texts are how it says so.
constexpr const char* outOfMemoryTexts[] = {"Failed to allocate memory", "std::bad_alloc",
                                            "bad allocation"};

constexpr struct {
  OrtErrorCode from;
  ResultCode to;
} codes[] = {
    {OrtErrorCode::InvalidArgument, ResultCodes::InvalidArgument},
    {OrtErrorCode::NoSuchFile, ResultCodes::FileNotFound},
    {OrtErrorCode::InvalidProtobuf, ResultCodes::InvalidArgument},
    {OrtErrorCode::NotImplemented, ResultCodes::NotImplemented},
    {OrtErrorCode::InvalidGraph, ResultCodes::InvalidArgument},
};

ResultCode CodeFor(int errorCode, const char* message) {
  for (const char* text : outOfMemoryTexts)
    if (std::strstr(message, text)) return ResultCodes::OutOfMemory;
  for (const auto& row : codes)
    if (static_cast<int>(row.from) == errorCode) return row.to;
  return ResultCodes::Fail;
}

}  // namespace

ResultCode TakeStatus(const OrtApi& api, OrtStatus* status) noexcept {
  if (!status) [[likely]]
    return ResultCodes::Ok;
  const char* message = api.getErrorMessage(status);
  const ResultCode code = Refused(CodeFor(api.getErrorCode(status), message), message);
  api.releaseStatus(status);
  return code;
}

ResultCode Refused(ResultCode code, const char* text) noexcept {
  HoldErrorInformation(text);
  return code;
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
