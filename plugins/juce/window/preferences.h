#pragma once

// What a user has chosen for all windows, in a file of the user's.

#include "juce/window/look.h"

#include <juce_data_structures/juce_data_structures.h>

namespace Orvik::Tesmo::Plugin {

/// `name` in the user's folder for settings of kalvrin. Message thread.
inline juce::File SettingsFile(const juce::String& name) {
  return juce::File::getSpecialLocation(juce::File::userApplicationDataDirectory)
      .getChildFile("kalvrin")
      .getChildFile(name);
}

inline std::unique_ptr<juce::PropertiesFile> OpenSettings(const juce::String& name) {
  juce::PropertiesFile::Options options;
  options.millisecondsBeforeSaving = 500;
  return std::make_unique<juce::PropertiesFile>(SettingsFile(name), options);
}

inline Appearance KeptAppearance() {
  const juce::String text = OpenSettings("window.settings")->getValue("appearance");
  return text == "light"  ? Appearance::Light
         : text == "dark" ? Appearance::Dark
                          : Appearance::Desktop;
}

inline void KeepAppearance(Appearance appearance) {
  OpenSettings("window.settings")
      ->setValue("appearance", appearance == Appearance::Light  ? "light"
                               : appearance == Appearance::Dark ? "dark"
                                                                : "desktop");
}

}  // namespace Orvik::Tesmo::Plugin
