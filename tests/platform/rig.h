#pragma once

// The real engine for tests: opened once, never unloaded, and a model on it with tensors.

#include "platform/platform.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport {

using namespace Orvik::Tesmo::Platform;

/// Opens the engine's library anew; fails the program when that is impossible. Closing it does not
/// take it out of memory, where a leak checker could no longer name what it finds.
void* OpenEngineModule();
Runtime& TheRuntime();

std::string Hex(ResultCode code);
std::u16string Wide(std::string_view ascii);

std::shared_ptr<Tensor> MakeTensor(std::uint32_t kind, const Shape& shape);
/// The elements of a tensor of `T`, `count` of them.
template <class T = float>
std::span<T> Elements(Tensor& tensor, std::size_t count) {
  void* data = nullptr;
  CheckResult(tensor.Acquire(data));
  tensor.Release();
  return {static_cast<T*>(data), data ? count : 0};
}

/// A model, a session and a binding. What fails here is thrown.
class Rig {
public:
  explicit Rig(std::string modelBytes);

  std::shared_ptr<Tensor> Input(std::string_view name, const Shape& shape,
                                std::uint32_t kind = TensorKind::Float);
  std::shared_ptr<Tensor> Output(std::string_view name, const Shape& shape,
                                 std::uint32_t kind = TensorKind::Float);
  std::shared_ptr<Tensor> State(std::string_view input, std::string_view output, const Shape& shape,
                                std::uint32_t kind = TensorKind::Float);
  ResultCode Bind(Side side, std::string_view name, const std::shared_ptr<Tensor>& tensor);
  ResultCode Prepare() { return binding->Prepare(); }
  ResultCode Evaluate() { return session->Evaluate(*binding, u"RunId"); }

  std::shared_ptr<Model> model;
  std::shared_ptr<Session> session;
  std::shared_ptr<Binding> binding;
};

}  // namespace TestSupport
