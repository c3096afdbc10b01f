#pragma once

#include "platform/platform.h"

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

inline constexpr std::size_t weightAlignment = 64;

/// A constant of a model.
struct Weight {
  std::string name;
  int element = 0;
  Shape shape;
  void* data = nullptr;  ///< aligned to weightAlignment, in memory of the Weights; never written
  std::size_t bytes = 0;
};

/// The large constants of a model, also those of its bodies of loops and branches, in memory that
/// all its sessions may use. Does not change.
class Weights {
public:
  /// `model`: serialized, as the engine writes it; read during the call only. A constant is left
  /// out if its name stands for something else in another graph of the model. Throws Failure for
  /// bytes that are no serialized model.
  explicit Weights(std::string_view model);

  const std::vector<Weight>& All() const { return weights; }

private:
  struct Free {
    void operator()(char* memory) const {
      ::operator delete (memory, std::align_val_t{weightAlignment});
    }
  };

  std::vector<Weight> weights;
  std::unique_ptr<char, Free> memory;
};

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
