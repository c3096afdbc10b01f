// Streams of one model share its weights. Whatever becomes of some of them, the others return the
// bits that a stream alone returns.

#include "kalvrin/stream_processor.h"

#include "support/audio_models.h"
#include "support/recording.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

namespace {

using namespace TestSupport;

constexpr std::size_t blockFrames = 128;

/// Feeds a stream what its model fails on, if it does.
void PlayTooLoud(const Recording& recording) {
  const auto stream = recording.MakeStream();
  const std::vector<float> loud(blockFrames, 2.0F);
  std::vector<float> output(blockFrames);
  const float* const inputs[] = {loud.data(), loud.data()};
  float* const outputs[] = {output.data(), output.data()};
  for (int block = 0; block < 8; ++block) {
    try {
      stream->ProcessBlock(inputs, outputs, blockFrames, block % 3);
    } catch (...) {
      continue;  // the host goes on
    }
  }
}

void PlayHalf(const Recording& recording, Orvik::Tesmo::StreamProcessor& stream) {
  for (std::size_t block = 0; block < recording.Blocks() / 2; ++block)
    recording.Plays(stream, block);
}

TEST(ManyStreams, NeverNoticeEachOther) {
  const struct {
    const char* name;
    std::string model;
  } rows[] = {
      {"separator", RecipeModel("separator")},
      {"noise_reducer", RecipeModel("noise_reducer")},
      {"fails on loud blocks",
       MakeAudioModel(
           {.features = 128, .states = {{.shape = {"C"}, .isHeard = true}}, .failsOnLevel = true})},
  };
  for (const auto& row : rows) {
    const Recording recording(row.model, blockFrames, 60, static_cast<unsigned>(TestSeed()));
    constexpr int players = 4, troubles = 3;
    std::barrier start(players + troubles);
    std::atomic<int> playing = players, different = 0;
    std::vector<std::thread> threads;
    threads.reserve(players + troubles);
    for (int i = 0; i < players; ++i)
      threads.emplace_back([&] {
        start.arrive_and_wait();
        for (int round = 0; round < 3; ++round) {
          const auto stream = recording.MakeStream();
          for (std::size_t block = 0; block < recording.Blocks(); ++block)
            different += recording.Plays(*stream, block) ? 0 : 1;
        }
        --playing;
      });
    const auto whileOthersPlay = [&](auto trouble) {
      threads.emplace_back([&, trouble] {
        start.arrive_and_wait();
        while (playing != 0)
          trouble();
      });
    };
    whileOthersPlay([&] { PlayTooLoud(recording); });
    whileOthersPlay([&] { PlayHalf(recording, *recording.MakeStream()); });  // and deletes it
    whileOthersPlay([&] {
      const auto left = recording.MakeStream();
      std::thread([&] { PlayHalf(recording, *left); }).join();  // the thread ends before the stream
    });
    for (std::thread& thread : threads)
      thread.join();
    EXPECT_EQ(different, 0) << row.name;
  }
}

}  // namespace
