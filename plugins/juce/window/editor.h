#pragma once

#include "juce/processor.h"
#include "juce/window/banner.h"
#include "juce/window/look.h"
#include "juce/window/meter.h"
#include "juce/window/spectrogram.h"
#include "juce/window/strip.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <array>
#include <functional>
#include <memory>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// The window of the plugin, and the greater part of the program's.
class Editor final : public juce::AudioProcessorEditor,
                     public juce::FileDragAndDropTarget,
                     private juce::ChangeListener,
                     private juce::DarkModeSettingListener,
                     private juce::Timer {
public:
  static constexpr int leastWidth = 860, leastHeight = 460;

  explicit Editor(Processor& processor);
  ~Editor() override;

  /// Shows a sentence with buttons until it is closed; `close` is called then.
  void ShowHint(const juce::String& text, const juce::String& actionText,
                std::function<void()> action, std::function<void()> close);
  void HideHint();
  /// Says what has gone wrong until the user has read it.
  void ShowFault(const juce::String& text);
  /// The strip of that part, or null.
  Strip* FindStrip(const juce::String& name);
  /// What a drop of files that are no models does; null: they are not taken.
  std::function<void(const juce::File&)> openAudio;
  void ChooseModel();
  Look& GetLook() { return look; }

  void paint(juce::Graphics& g) override;
  void resized() override;
  void lookAndFeelChanged() override;
  bool keyPressed(const juce::KeyPress& key) override;
  bool isInterestedInFileDrag(const juce::StringArray& files) override;
  void fileDragEnter(const juce::StringArray&, int, int) override { SetDropTarget(true); }
  void fileDragExit(const juce::StringArray&) override { SetDropTarget(false); }
  void filesDropped(const juce::StringArray& files, int, int) override;

private:
  void changeListenerCallback(juce::ChangeBroadcaster*) override;
  void darkModeSettingChanged() override { UseAppearance(); }
  void timerCallback() override;
  void UseAppearance();
  void ShowNews();
  void MakeStrips();
  void ShowBanner();
  void ShowLevels(double seconds);
  void ShowPlayed();
  bool HasAudio() const;
  void ShowFigures();
  void ShowPresets();
  void ShowSettings();
  void AskForPresetName();
  void LayOutMixer(juce::Rectangle<int> area);
  void LayOutPictures(juce::Rectangle<int> area);
  void SetDropTarget(bool isOne);
  int MixerWidth() const;

  Processor& processor;
  Look look;
  ModelNews news;

  juce::Label name, facts, figures;
  juce::TextButton open{"Open model..."}, slotA{"A"}, slotB{"B"}, presets{"Presets"}, undo{"Undo"},
      redo{"Redo"}, bypass{"Bypass"}, settings{"Settings"};
  juce::ButtonParameterAttachment bypassAttachment;
  Banner banner;
  juce::Viewport mixerView;
  juce::Component mixer;
  std::vector<std::unique_ptr<Strip>> strips;  // those of the model, then the master
  std::vector<std::size_t> stripNumbers;       // of the processor; none for the master
  juce::Label beforeTitle, afterTitle;
  Spectrogram before{"Spectrogram of the input"}, after{"Spectrogram of the output"};
  std::array<Meter, 2> inputMeters, outputMeters;
  juce::TooltipWindow tooltips{this, 600};

  struct Hint {
    juce::String text, actionText;
    std::function<void()> action, close;
  };
  Hint hint;
  juce::String fault;
  juce::StringArray stripNames;  // as made
  double pictureRateHz = 0;
  juce::uint32 lastLook = 0;
  int ticks = 0;
  int picturesWithoutAudio = 0;  // in a row
  bool isDropTarget = false, isSeen = false;
  std::vector<float> playedBefore, playedAfter;
  std::unique_ptr<juce::FileChooser> chooser;
  std::unique_ptr<juce::AlertWindow> asking;
};

}  // namespace Orvik::Tesmo::Plugin
