#include "hosting/evaluation_thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace Orvik::Tesmo::Hosting {
namespace {

void Copy(const Frames& from, Frames& to) {
  for (std::size_t c = 0; c < to.ChannelCount(); ++c)
    std::copy_n(from[c], to.Length(), to[c]);
}

}  // namespace

EvaluationThread::EvaluationThread(Evaluation& evaluation, std::size_t channelCount)
    : evaluation(evaluation), slots{Slot(channelCount, evaluation.ChunkFrames()),
                                    Slot(channelCount, evaluation.ChunkFrames()),
                                    Slot(channelCount, evaluation.ChunkFrames()),
                                    Slot(channelCount, evaluation.ChunkFrames())} {
  sem_init(&work, 0, 0);
  worker = std::thread(&EvaluationThread::Work, this);
}

EvaluationThread::~EvaluationThread() {
  ends.store(true, std::memory_order_relaxed);
  sem_post(&work);
  worker.join();
  sem_destroy(&work);
}

void EvaluationThread::Work() {
  for (std::uint64_t next = 0;; ++next) {
    while (sem_wait(&work) != 0 && errno == EINTR)
      ;
    if (ends.load(std::memory_order_relaxed)) return;
    Slot& slot = slots[next % slots.size()];
    const auto begin = std::chrono::steady_clock::now();
    slot.isValid = evaluation.Run(slot.input.Channels(), slot.output.Channels());
    slot.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    completed.store(next + 1, std::memory_order_release);
    completed.notify_all();
  }
}

bool EvaluationThread::Submit(const Frames& chunk, std::uint64_t number) {
  if (submitted - taken == slots.size()) return false;
  Slot& slot = slots[submitted % slots.size()];
  Copy(chunk, slot.input);
  slot.number = number;
  ++submitted;
  sem_post(&work);  // orders the slot's content before the worker's sem_wait
  return true;
}

bool EvaluationThread::Take(std::uint64_t number, Frames& result, bool& isValid) {
  const std::uint64_t ready = completed.load(std::memory_order_acquire);
  for (; taken < ready; ++taken) {
    const Slot& slot = slots[taken % slots.size()];
    if (slot.number > number) return false;
    worstSeconds = std::max(worstSeconds, slot.seconds);
    if (slot.number < number) continue;
    Copy(slot.output, result);
    isValid = slot.isValid;
    ++taken;
    return true;
  }
  return false;
}

void EvaluationThread::WaitUntilIdle() const {
  for (std::uint64_t done; (done = completed.load(std::memory_order_acquire)) != submitted;)
    completed.wait(done);
}

}  // namespace Orvik::Tesmo::Hosting
