#include "juce/identity.h"

#include "hosting/description.h"
#include "stream/set_up.h"
#include "wrapper/instance.h"
#include "wrapper/ports.h"

#include <exception>

namespace Orvik::Tesmo::Plugin {
namespace {

struct Identity {
  Identity() : description(DescriptionOfAnyModel("kalvrin")) {
    // BUNDLE.vst3/Contents/ARCHITECTURE/BUNDLE.so
    const auto file =
        std::filesystem::path(GetLibraryFolder()).parent_path() / "Resources" / "model.onnx";
    std::error_code error;
    if (!std::filesystem::exists(Hosting::DescriptionPath(file), error)) return;
    try {
      description = Hosting::ReadDescription(Hosting::DescriptionPath(file));
      if (!description.takesAnyModel) model = file;
    } catch (const std::exception& failure) {
      Say(failure.what());
    }
  }

  Hosting::Description description;
  std::filesystem::path model;
};

const Identity& Own() {
  static const Identity identity;
  return identity;
}

}  // namespace

const Hosting::Description& OwnDescription() {
  return Own().description;
}

const std::filesystem::path& OwnModel() {
  return Own().model;
}

const char* OwnName() {
  return Own().description.name.c_str();
}

std::uint32_t OwnCode() {
  return HashOf(Own().description.symbol);
}

}  // namespace Orvik::Tesmo::Plugin
