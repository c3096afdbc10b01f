#include "platform/onnxruntime/failure.h"

#include "platform/rig.h"

#include <gtest/gtest.h>

#include <array>
#include <new>
#include <stdexcept>

// A status that the engine rarely returns, made by a table of our own.

namespace Orvik::Tesmo::Platform::OnnxRuntime {

struct OrtStatus {
  int code;
  const char* message;
  bool isReleased = false;
};

namespace {

using TestSupport::Hex;

OrtApi FakeApi() {
  static std::array<const void*, 256> slots = {};
  int (*const code)(const OrtStatus*) = [](const OrtStatus* status) { return status->code; };
  const char* (*const message)(const OrtStatus*) = [](const OrtStatus* s) { return s->message; };
  void (*const release)(OrtStatus*) = [](OrtStatus* status) { status->isReleased = true; };
  slots[1] = reinterpret_cast<const void*>(code);
  slots[2] = reinterpret_cast<const void*>(message);
  slots[93] = reinterpret_cast<const void*>(release);
  return OrtApi(slots.data());
}

TEST(TakeStatus, MapsTheEnginesCodesAndHoldsItsWords) {
  const char* const fullArena = "BFCArena::AllocateRawInternal Failed to allocate memory for 99";
  struct {
    OrtStatus status;
    ResultCode code;
  } rows[] = {
      {{1, "failed"}, ResultCodes::Fail},
      {{2, "wrong shape"}, ResultCodes::InvalidArgument},
      {{3, "no file"}, ResultCodes::FileNotFound},
      {{6, "exception"}, ResultCodes::Fail},
      {{7, "no protobuf"}, ResultCodes::InvalidArgument},
      {{9, "no kernel"}, ResultCodes::NotImplemented},
      {{10, "no graph"}, ResultCodes::InvalidArgument},
      {{99, "code to come"}, ResultCodes::Fail},
      {{6, fullArena}, ResultCodes::OutOfMemory},
      {{1, "Exception: std::bad_alloc"}, ResultCodes::OutOfMemory},
  };
  for (auto& row : rows) {
    const char* message = row.status.message;
    EXPECT_EQ(Hex(TakeStatus(FakeApi(), &row.status)), Hex(row.code)) << message;
    EXPECT_TRUE(row.status.isReleased) << message;
    EXPECT_STREQ(winrt::hresult_error(row.code).message(), message);
  }
  EXPECT_EQ(TakeStatus(FakeApi(), nullptr), ResultCodes::Ok);
}

TEST(Guarded, LetsNothingThrough) {
  const struct {
    const char* name;
    void (*operation)();
    ResultCode code;
    const char* words;
  } rows[] = {
      {"success", [] {}, ResultCodes::Ok, "of an earlier failure"},
      {"refusal", [] { Refuse(ResultCodes::OutOfBounds, "why"); }, ResultCodes::OutOfBounds, "why"},
      {"memory", [] { throw std::bad_alloc(); }, ResultCodes::OutOfMemory, ""},
      {"length", [] { throw std::length_error("vector"); }, ResultCodes::Fail, ""},
  };
  for (const auto& row : rows) {
    HoldErrorInformation("of an earlier failure");
    EXPECT_EQ(Hex(Guarded(row.operation)), Hex(row.code)) << row.name;
    EXPECT_STREQ(winrt::hresult_error(ResultCodes::Fail).message(), row.words) << row.name;
  }
}

}  // namespace
}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
