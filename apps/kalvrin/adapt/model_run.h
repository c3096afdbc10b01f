#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// A model of any contract on the engine, its tensors bound by name. Shapes are concrete. Every
/// operation throws what the engine fails with.
class ModelRun {
public:
  ModelRun(Platform::Runtime& runtime, const std::string& bytes);

  /// A tensor of floats; the place of its values in Get and Set.
  std::size_t Bind(Platform::Side side, const std::string& name, const Platform::Shape& shape);
  void BindState(const std::string& input, const std::string& output, std::uint32_t kind,
                 const Platform::Shape& shape);

  /// After the last Bind, before the first Evaluate, and to start again: all values become 0.
  void Restart();
  void Evaluate();

  void Set(std::size_t tensor, const std::vector<float>& values);
  std::vector<float> Get(std::size_t tensor);

private:
  struct Bound {
    std::shared_ptr<Platform::Tensor> tensor;
    std::size_t size;
  };
  void Connect(Platform::Side side, const std::string& name,
               const std::shared_ptr<Platform::Tensor>& tensor);

  Platform::Runtime& runtime;
  std::shared_ptr<Platform::Session> session;
  std::shared_ptr<Platform::Binding> binding;
  std::vector<Bound> bound;
};

}  // namespace Orvik::Tesmo::Tool
