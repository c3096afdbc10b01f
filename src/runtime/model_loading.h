#pragma once

// From the bytes of a model to the objects that it runs in. Failures are the platform's.

#include "platform/platform.h"

#include <cstdint>
#include <memory>

namespace Orvik::Tesmo::Dnn {

/// `modelData`: the low 32 bits of `modelSize` many bytes, read during the call only. Throws
/// ContractException where it is null and the size is not 0.
std::shared_ptr<Platform::Model> LoadLearningModel(Platform::Runtime& runtime,
                                                   const void* modelData, std::uint64_t modelSize);

std::shared_ptr<Platform::Device> CreateCpuDevice(Platform::Runtime& runtime);

/// Batch size 1 and one thread inside an operator, where the engine takes that wish.
std::shared_ptr<Platform::SessionOptions> CreateSessionOptions(Platform::Runtime& runtime);

/// A session with the options above.
std::shared_ptr<Platform::Session> CreateSession(Platform::Runtime& runtime,
                                                 const std::shared_ptr<Platform::Model>& model,
                                                 const std::shared_ptr<Platform::Device>& device);

std::shared_ptr<Platform::Binding> CreateBinding(Platform::Runtime& runtime,
                                                 const std::shared_ptr<Platform::Session>& session);

}  // namespace Orvik::Tesmo::Dnn
