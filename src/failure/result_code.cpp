#include "failure/result_code.h"

#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>

namespace {
thread_local char heldErrorInformation[ErrorInformationCapacity];
}

void HoldErrorInformation(const char* text) noexcept {
  std::strncpy(heldErrorInformation, text ? text : "", ErrorInformationCapacity - 1);
}

winrt::hresult_error::hresult_error(ResultCode code) noexcept : value(code) {
  std::memcpy(text, heldErrorInformation, sizeof text);
  heldErrorInformation[0] = '\0';
}

void ThrowForResultCode(ResultCode code) {
  using namespace winrt;
  switch (code) {
  case ResultCodes::OutOfMemory:
    heldErrorInformation[0] = '\0';  // this exception has no room for it, and no other may take it
    throw std::bad_alloc();
  case ResultCodes::AccessDenied:
    throw hresult_access_denied();
  case ResultCodes::WrongThread:
    throw hresult_wrong_thread();
  case ResultCodes::NotImplemented:
    throw hresult_not_implemented();
  case ResultCodes::InvalidArgument:
    throw hresult_invalid_argument();
  case ResultCodes::OutOfBounds:
    throw hresult_out_of_bounds();
  case ResultCodes::NoInterface:
    throw hresult_no_interface();
  case ResultCodes::ClassNotAvailable:
    throw hresult_class_not_available();
  case ResultCodes::ClassNotRegistered:
    throw hresult_class_not_registered();
  case ResultCodes::ChangedState:
    throw hresult_changed_state();
  case ResultCodes::IllegalMethodCall:
    throw hresult_illegal_method_call();
  case ResultCodes::IllegalStateChange:
    throw hresult_illegal_state_change();
  case ResultCodes::IllegalDelegateAssignment:
    throw hresult_illegal_delegate_assignment();
  case ResultCodes::Canceled:
    throw hresult_canceled();
  default:
    throw hresult_error(code);
  }
}

ResultCode ResultCodeForCurrentException() {
  try {
    throw;
  } catch (const winrt::hresult_error& failure) {
    return failure.code();
  } catch (const std::bad_alloc&) {
    return ResultCodes::OutOfMemory;
  } catch (const std::out_of_range&) {
    return ResultCodes::OutOfBounds;
  } catch (const std::invalid_argument&) {
    return ResultCodes::InvalidArgument;
  } catch (const std::exception&) {
    return ResultCodes::Fail;
  }
}
