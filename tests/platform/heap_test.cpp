// What sessions of the engine hold of the C library's heap.

#include "platform/rig.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>
#include <malloc.h>

namespace {

using namespace TestSupport;

/// Bytes of the C library's heap that are in use.
std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(Session, GivesItsMemoryBack) {
  const std::string model = MakeAudioModel();
  std::size_t before = 0;
  for (int round = 0; round < 30; ++round) {
    Rig rig(model);
    if (round == 5) before = HeapInUse();
  }
  EXPECT_LT(HeapInUse(), before);  // with no session at all
}

/// Between two evaluations the engine holds what it worked in, of which the least is a mebibyte.
TEST(Session, KeepsItsWorkingMemoryWhileItLives) {
  Rig rig(MakeAudioModel({.states = {{.isHeard = true}}}));
  rig.Input("input", {1, 1, 8});
  rig.Output("output", {1, 1, 1, 8});
  rig.State("state1", "newState1", {1});
  const std::size_t before = HeapInUse();
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  EXPECT_GT(HeapInUse(), before + (1 << 19));
}

}  // namespace
