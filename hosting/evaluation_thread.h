#pragma once

#include "hosting/evaluation.h"
#include "hosting/frames.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <semaphore.h>
#include <thread>
#include <utility>

namespace Orvik::Tesmo::Hosting {

/// Evaluations on a thread of their own. Chunks go in and results come out in order, through slots
/// that each side owns in turn: no lock, no wait. The audio thread wakes the worker by sem_post, a
/// system call (a futex wake) that waits for nobody.
class EvaluationThread {
public:
  /// `evaluation` outlives the object. Starts the thread, which sleeps while there is nothing.
  EvaluationThread(Evaluation& evaluation, std::size_t channelCount);
  /// Waits for the evaluation in progress.
  ~EvaluationThread();
  EvaluationThread(const EvaluationThread&) = delete;
  EvaluationThread& operator=(const EvaluationThread&) = delete;

  // On the audio thread:

  /// Gives chunk number `number` to the worker. Returns false, and does nothing, where the worker
  /// is so late that no slot is free.
  bool Submit(const Frames& chunk, std::uint64_t number);
  /// Copies the result of chunk `number` to `result`; `isValid` is false where the evaluation
  /// failed. Returns false where it is not there yet. Results of earlier chunks, which came too
  /// late for their own call, are dropped.
  bool Take(std::uint64_t number, Frames& result, bool& isValid);
  /// The longest time that one of the evaluations taken or dropped since the last call has run.
  double TakeWorstSeconds() { return std::exchange(worstSeconds, 0.0); }
  /// Nothing is in progress and nothing waits.
  bool IsIdle() const { return completed.load(std::memory_order_acquire) == submitted; }
  /// Sleeps until IsIdle: for hosts that do not play in real time.
  void WaitUntilIdle() const;
  /// Drops all results that nobody took. Only while IsIdle.
  void Forget() { taken = submitted; }

private:
  void Work();

  struct Slot {
    Slot(std::size_t channelCount, std::uint64_t frames)
        : input(channelCount, frames), output(channelCount, frames) {}
    Frames input, output;
    std::uint64_t number = 0;
    bool isValid = false;
    double seconds = 0;  // that the evaluation took
  };

  Evaluation& evaluation;
  std::array<Slot, 4> slots;
  std::uint64_t submitted = 0, taken = 0;  // of the audio thread
  double worstSeconds = 0;                 // of the audio thread
  std::atomic<std::uint64_t> completed = 0;
  std::atomic<bool> ends = false;
  sem_t work;
  std::thread worker;
};

}  // namespace Orvik::Tesmo::Hosting
