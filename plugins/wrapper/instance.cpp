#include "wrapper/instance.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <set>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

Hosting::ModeWish WishFor(float value) {
  return value >= 1.5F   ? Hosting::ModeWish::Spread
         : value >= 0.5F ? Hosting::ModeWish::Direct
                         : Hosting::ModeWish::Automatic;
}

std::unique_ptr<AskedModel> FirstModel(const Form& form, double hostRateHz,
                                       std::uint32_t usualBlockFrames) {
  if (form.description.takesAnyModel) {
    (void)Hosting::HostedStream::CheckedRate(hostRateHz);
    return NoModel();
  }
  auto model = std::make_unique<AskedModel>();
  model->stream =
      std::make_unique<Hosting::HostedStream>(form.description, Hosting::LoadModelBytes(form.model),
                                              hostRateHz, form.channelCount, usualBlockFrames);
  return model;
}

}  // namespace

void Say(const char* what) noexcept {
  std::fprintf(stderr, "kalvrin: %s\n", what);
}

Form::Form(Hosting::Description described, unsigned channelCount, std::filesystem::path model,
           Interface of)
    : description(std::move(described)), channelCount(channelCount), model(std::move(model)),
      ports(PortsOf(description, channelCount, of)) {}

Instance::Instance(const Form& form, double hostRateHz, std::uint32_t usualBlockFrames,
                   std::uint32_t longestBlock)
    : form(form), stream(FirstModel(form, hostRateHz, usualBlockFrames), hostRateHz,
                         form.channelCount, longestBlock),
      data(form.ports.size()), classGainsDb(form.description.classes.size()),
      inputs(form.channelCount), outputs(form.channelCount) {}

void Instance::Connect(std::size_t port, float* place) noexcept {
  if (port < data.size() && !form.ports[port].IsMessages()) data[port] = place;
}

void Instance::Activate() noexcept {
  try {
    stream.Activate();
  } catch (const std::exception& error) {
    Say(error.what());
  }
}

float Instance::Value(std::size_t port) const {
  const float value = data[port] ? *data[port] : form.ports[port].initial;
  return std::isnan(value) ? form.ports[port].initial : value;
}

void Instance::ReadControls() {
  controls.classGainsDb = classGainsDb;
  if (form.description.isAlwaysSpread) controls.mode = Hosting::ModeWish::Spread;
  for (std::size_t i = 0; i < data.size(); ++i) {
    const Port& port = form.ports[i];
    switch (port.role) {
    case Role::Input:
      inputs[port.index] = data[i];
      break;
    case Role::Output:
      outputs[port.index] = data[i];
      break;
    case Role::Enabled:
      controls.isBypassed = Value(i) <= 0;
      break;
    case Role::Bypass:
      controls.isBypassed = Value(i) > 0;
      break;
    case Role::Master:
      controls.masterGainDb = Value(i);
      break;
    case Role::Rest:
      controls.restGainDb = Value(i);
      break;
    case Role::ClassGain:
      classGainsDb[port.index] = Value(i);
      break;
    case Role::Mode:
      controls.mode = WishFor(Value(i));
      break;
    case Role::HighBand:
      controls.highBand = Value(i) > 0.5F ? Hosting::HighBand::Rest : Hosting::HighBand::Follow;
      break;
    case Role::FreeWheel:
      controls.mayWait = Value(i) > 0;
      break;
    case Role::MessagesIn:
    case Role::Latency:
    case Role::Late:
    case Role::Load:
    case Role::MessagesOut:
      break;
    }
  }
}

void Instance::Report() {
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (!data[i]) continue;
    if (form.ports[i].role == Role::Latency)
      *data[i] = static_cast<float>(stream.GetLatencyFrames(controls.mode));
    if (form.ports[i].role == Role::Late) *data[i] = static_cast<float>(stream.LateResults());
    if (form.ports[i].role == Role::Load) *data[i] = 100 * stream.Load();
  }
}

void Instance::Run(std::uint32_t frames) noexcept {
  ReadControls();
  const bool isConnected =
      std::ranges::count(inputs, nullptr) == 0 && std::ranges::count(outputs, nullptr) == 0;
  stream.Process(inputs.data(), outputs.data(), isConnected ? frames : 0, controls);
  Report();
}

std::unique_ptr<Instance> TryMakeInstance(const Form& form, double hostRateHz,
                                          std::uint32_t usualBlockFrames,
                                          std::uint32_t longestBlock) noexcept {
  try {
    return std::make_unique<Instance>(form, hostRateHz, usualBlockFrames, longestBlock);
  } catch (const std::exception& error) {
    Say(error.what());
    return nullptr;
  }
}

std::vector<Form> FindForms(const std::filesystem::path& folder, Interface of) noexcept {
  std::vector<Form> forms;
  try {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      if (entry.path().extension() == ".plugin") files.insert(entry.path());
    for (const auto& file : files) {
      try {
        const Hosting::Description description = Hosting::ReadDescription(file);
        for (const unsigned count : description.channelCounts)
          forms.emplace_back(description, count,
                             std::filesystem::path(file).replace_extension(".onnx"), of);
      } catch (const std::exception& error) {
        Say(error.what());
      }
    }
  } catch (const std::exception& error) {
    Say(error.what());
  }
  return forms;
}

}  // namespace Orvik::Tesmo::Plugin
