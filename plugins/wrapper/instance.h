#pragma once

#include "wrapper/changing_stream.h"
#include "wrapper/ports.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// A form of a model that a host can instantiate.
struct Form {
  Hosting::Description description;
  unsigned channelCount = 0;
  std::filesystem::path model;
  std::vector<Port> ports;

  /// Fills `ports` from the other members.
  Form(Hosting::Description description, unsigned channelCount, std::filesystem::path model,
       Interface of);
};

/// A stream behind the ports that a host connects, for interfaces that pass a pointer to floats for
/// each port. Threads as ChangingStream.
class Instance {
public:
  /// Slow. `form` outlives the object. A form that takes any model begins without one.
  /// `longestBlock` is what ChangingStream takes. Throws what loading the model and HostedStream
  /// throw.
  Instance(const Form& form, double hostRateHz, std::uint32_t usualBlockFrames,
           std::uint32_t longestBlock = 0);

  /// For changes of the model.
  ChangingStream& Stream() { return stream; }

  /// Load for a number that no port has.
  Role RoleOf(std::size_t port) const {
    return port < form.ports.size() ? form.ports[port].role : Role::Load;
  }
  /// Ignores numbers that no port has, and ports of messages.
  void Connect(std::size_t port, float* data) noexcept;
  /// Writes to standard error where memory runs out.
  void Activate() noexcept;
  /// Does nothing while an audio port is not connected. A control that is not connected has its
  /// initial value.
  void Run(std::uint32_t frames) noexcept;

private:
  float Value(std::size_t port) const;
  void ReadControls();
  void Report();

  const Form& form;
  ChangingStream stream;
  std::vector<float*> data;  // by port
  std::vector<float> classGainsDb;
  std::vector<const float*> inputs;
  std::vector<float*> outputs;
  Hosting::Controls controls;
};

/// The instance, or null with the reason on standard error.
std::unique_ptr<Instance> TryMakeInstance(const Form& form, double hostRateHz,
                                          std::uint32_t usualBlockFrames,
                                          std::uint32_t longestBlock = 0) noexcept;

/// Writes a line for people to standard error.
void Say(const char* what) noexcept;

/// All forms of the models that have a description in `folder`, by file name; descriptions that
/// cannot be read are named on standard error.
std::vector<Form> FindForms(const std::filesystem::path& folder, Interface of) noexcept;

}  // namespace Orvik::Tesmo::Plugin
