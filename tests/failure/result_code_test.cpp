#include "failure/result_code.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>

namespace {

/// What is known of a thrown exception: its type, its code, and the code that it maps back to.
struct Raised {
  const std::type_info* type = nullptr;
  ResultCode code = 0;  ///< 0 where the exception has none
  ResultCode mappedBack = 0;
};

Raised Raise(const std::function<void()>& raise) {
  try {
    raise();
  } catch (const winrt::hresult_error& error) {
    return {&typeid(error), error.code(), ResultCodeForCurrentException()};
  } catch (const std::exception& error) {
    return {&typeid(error), 0, ResultCodeForCurrentException()};
  } catch (...) {
    return {nullptr, 0, ResultCodeForCurrentException()};
  }
  return {};
}

TEST(ResultCode, EachCodeHasItsClassAndMapsBack) {
  const struct {
    std::uint32_t bits;
    const std::type_info& type;
  } rows[] = {
      {0x8007000E, typeid(std::bad_alloc)},
      {0x80070005, typeid(winrt::hresult_access_denied)},
      {0x8001010E, typeid(winrt::hresult_wrong_thread)},
      {0x80004001, typeid(winrt::hresult_not_implemented)},
      {0x80070057, typeid(winrt::hresult_invalid_argument)},
      {0x8000000B, typeid(winrt::hresult_out_of_bounds)},
      {0x80004002, typeid(winrt::hresult_no_interface)},
      {0x80040111, typeid(winrt::hresult_class_not_available)},
      {0x80040154, typeid(winrt::hresult_class_not_registered)},
      {0x8000000C, typeid(winrt::hresult_changed_state)},
      {0x8000000E, typeid(winrt::hresult_illegal_method_call)},
      {0x8000000D, typeid(winrt::hresult_illegal_state_change)},
      {0x80000018, typeid(winrt::hresult_illegal_delegate_assignment)},
      {0x800704C7, typeid(winrt::hresult_canceled)},
      {0x80004005, typeid(winrt::hresult_error)},
      {0x80070002, typeid(winrt::hresult_error)},
      {0xFFFFFFFF, typeid(winrt::hresult_error)},
  };
  for (const auto& row : rows) {
    const ResultCode code = ResultCodes::FromBits(row.bits);
    const Raised raised = Raise([&] { CheckResult(code); });
    ASSERT_NE(raised.type, nullptr) << std::hex << row.bits;
    EXPECT_EQ(*raised.type, row.type) << std::hex << row.bits << " threw " << raised.type->name();
    EXPECT_EQ(raised.mappedBack, code) << std::hex << row.bits;
    if (code != ResultCodes::OutOfMemory) {
      EXPECT_EQ(raised.code, code) << std::hex << row.bits;
    }
  }
}

TEST(ResultCode, SuccessAndInformationDoNotThrow) {
  for (ResultCode code : {0, 1, 0x7FFFFFFF})
    EXPECT_NO_THROW(CheckResult(code)) << code;
}

TEST(ResultCode, ErrorInformationGoesToTheNextFailureOnlyAndIsCutToFit) {
  const auto messageOf = [](ResultCode code) -> std::string {
    try {
      ThrowForResultCode(code);
    } catch (const winrt::hresult_error& error) {
      return error.message();
    }
  };
  HoldErrorInformation("no such operator");
  EXPECT_EQ(messageOf(ResultCodes::Fail), "no such operator");
  EXPECT_EQ(messageOf(ResultCodes::Fail), "");
  HoldErrorInformation(std::string(2000, 'x').c_str());
  EXPECT_EQ(messageOf(ResultCodes::AccessDenied), std::string(ErrorInformationCapacity - 1, 'x'));
  HoldErrorInformation("no memory");
  EXPECT_THROW(ThrowForResultCode(ResultCodes::OutOfMemory), std::bad_alloc);
  EXPECT_EQ(messageOf(ResultCodes::Fail), "") << "kept from a failure that has no room for it";
  HoldErrorInformation(nullptr);
  EXPECT_EQ(messageOf(ResultCodes::Fail), "");
}

TEST(ResultCode, ForeignExceptionsMapByFamily) {
  const struct {
    const char* name;
    std::function<void()> raise;
    ResultCode code;
  } rows[] = {
      {"out_of_range", [] { throw std::out_of_range("x"); }, ResultCodes::OutOfBounds},
      {"invalid_argument", [] { throw std::invalid_argument("x"); }, ResultCodes::InvalidArgument},
      {"length_error", [] { throw std::length_error("x"); }, ResultCodes::Fail},
      {"runtime_error", [] { throw std::runtime_error("x"); }, ResultCodes::Fail},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Raise(row.raise).mappedBack, row.code) << row.name;
  EXPECT_THROW(Raise([] { throw 7; }), int) << "outside the families: passed on";
}

}  // namespace
