#pragma once

// How a failure travels in this folder: as a Failure up to the operation of the boundary, and from
// there as a result code. Its words are held for the exception to come from the moment it is found.

#include "failure/result_code.h"
#include "platform/onnxruntime/ort_api.h"

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// Never leaves the boundary: Guarded stands around every operation that can throw it.
struct Failure {
  ResultCode code;
};

/// The code for what an entry of the engine answered; holds its message. Releases `status`.
/// Allocates nothing.
ResultCode TakeStatus(const OrtApi& api, OrtStatus* status) noexcept;

/// Holds `text` as the error information and returns `code`.
ResultCode Refused(ResultCode code, const char* text) noexcept;

[[noreturn]] inline void Refuse(ResultCode code, const char* text) {
  throw Failure{Refused(code, text)};
}

/// Runs an operation of the boundary: what is thrown in it becomes its code.
template <class Operation>
ResultCode Guarded(Operation&& operation) noexcept {
  try {
    operation();
    return ResultCodes::Ok;
  } catch (const Failure& failure) {
    return failure.code;
  } catch (...) {
    return Refused(ResultCodeForCurrentException(), "");
  }
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
