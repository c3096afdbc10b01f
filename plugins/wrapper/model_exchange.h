#pragma once

#include "wrapper/asked_model.h"

#include <atomic>
#include <memory>
#include <utility>

namespace Orvik::Tesmo::Plugin {

/// Models on their way from the thread that loads them to the audio thread, and back to be freed.
/// The audio thread allocates nothing, frees nothing and waits for nothing.
class ModelExchange {
public:
  ModelExchange() = default;
  ~ModelExchange() {
    FreeGivenBack();
    delete offered.load();
  }
  ModelExchange(const ModelExchange&) = delete;
  ModelExchange& operator=(const ModelExchange&) = delete;

  // Any thread but the audio thread:

  /// An offer that has not been taken yet is out of date, and freed.
  void Offer(std::unique_ptr<AskedModel> model) {
    delete offered.exchange(model.release(), std::memory_order_acq_rel);
  }
  void FreeGivenBack() {
    for (AskedModel* model = givenBack.exchange(nullptr, std::memory_order_acquire); model;)
      delete std::exchange(model, model->next);
  }

  // The audio thread:

  /// The last offer, or null.
  std::unique_ptr<AskedModel> Take() {
    return std::unique_ptr<AskedModel>(offered.exchange(nullptr, std::memory_order_acquire));
  }
  /// Returns whether there was something to give.
  bool GiveBack(std::unique_ptr<AskedModel> model) {
    if (!model) return false;
    AskedModel* const place = model.release();
    place->next = givenBack.load(std::memory_order_relaxed);
    while (!givenBack.compare_exchange_weak(place->next, place, std::memory_order_release))
      ;
    return true;
  }

private:
  std::atomic<AskedModel*> offered = nullptr, givenBack = nullptr;
};

}  // namespace Orvik::Tesmo::Plugin
