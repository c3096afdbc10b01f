#pragma once

#include "juce/processor.h"
#include "juce/standalone/player.h"
#include "juce/standalone/source_bar.h"
#include "juce/window/editor.h"

#include <juce_data_structures/juce_data_structures.h>

#include <atomic>
#include <memory>
#include <thread>

namespace Orvik::Tesmo::Plugin {

/// All that the program's window holds: what plays, and the plugin's window under it.
class MainView final : public juce::Component, private juce::Timer {
public:
  /// All outlive the object.
  MainView(Processor& processor, Player& player, juce::PropertiesFile& settings);
  ~MainView() override;

  /// A model, or audio, which replaces what plays.
  void Open(const juce::File& file, bool plays);
  /// The demonstration, and words about it that stay until the user closes them.
  void BeginFirstStart();
  void PlayDemonstration(bool plays);
  void ShowFault(const juce::String& text) { editor.ShowFault(text); }

  void resized() override;
  void paint(juce::Graphics& g) override;
  bool keyPressed(const juce::KeyPress& key) override;

private:
  void timerCallback() override;
  void OpenAudio(const juce::File& file, bool plays);
  void ChooseAudio();
  void PlayLive();
  void ToggleWriting();
  void ChooseResult();
  void SaveResult(const juce::File& file);
  void ShowDevices();
  void ShowHint();
  void MoveFader();
  void ShowNote(const juce::String& note);

  Processor& processor;
  Player& player;
  juce::PropertiesFile& settings;
  Editor editor;
  SourceBar bar;
  std::unique_ptr<juce::FileChooser> chooser;
  juce::File written;
  double noteUntil = 0;

  // Decoding and saving, one at a time.
  std::thread work;
  std::atomic<bool> isWorking = false, stops = false;
  std::atomic<double> share = 0;
  bool isSaving = false;
  juce::String deviceFault;  // as shown

  bool isHintShown = false, hasSunk = false;
  double fadeBegan = 0;  // of the fader that shows itself; 0: it does not move
};

}  // namespace Orvik::Tesmo::Plugin
