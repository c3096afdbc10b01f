#pragma once

#include "juce/standalone/player.h"

#include <juce_gui_basics/juce_gui_basics.h>

#include <functional>

namespace Orvik::Tesmo::Plugin {

/// What plays, how far it is, and what is written: the upper part of the program's window.
class SourceBar final : public juce::Component, private juce::Timer {
public:
  static constexpr int height = 48;

  explicit SourceBar(Player& player);

  /// What the buttons do beyond the player.
  std::function<void()> chooseDemonstration, chooseFile, chooseLive, record, save, devices;
  /// A line in place of the name of what plays, such as how far saving is; empty: the name.
  void SetNote(const juce::String& newNote);

  void paint(juce::Graphics& g) override;
  void resized() override;
  void lookAndFeelChanged() override;

private:
  void timerCallback() override;

  Player& player;
  juce::TextButton play{"Play"}, demonstration{"Demonstration"}, file{"File..."},
      live{"Live input"}, recording{"Record"}, saving{"Save result..."}, device{"Sound..."};
  juce::Label name, time;
  juce::Slider position;
  juce::String note;
};

}  // namespace Orvik::Tesmo::Plugin
