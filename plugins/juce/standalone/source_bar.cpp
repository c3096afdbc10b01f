#include "juce/standalone/source_bar.h"

#include "juce/window/look.h"

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr int gap = 8;

juce::String MinutesAndSeconds(double seconds) {
  const int whole = static_cast<int>(seconds);
  return juce::String(whole / 60) + ":" + juce::String(whole % 60).paddedLeft('0', 2);
}

}  // namespace

SourceBar::SourceBar(Player& player) : player(player) {
  play.getProperties().set("kind", "main");
  play.onClick = [this] { this->player.SetPlaying(!this->player.IsPlaying()); };
  play.setTooltip("Play and pause (space bar)");
  demonstration.onClick = [this] { chooseDemonstration(); };
  demonstration.setTooltip("Speech over music, again and again");
  file.onClick = [this] { chooseFile(); };
  file.setTooltip("Play a file again and again; you can also drop one here");
  live.onClick = [this] { chooseLive(); };
  live.setTooltip("What comes in at the sound device, at once to where sound goes out. Use "
                  "headphones: a microphone near a loudspeaker howls.");
  recording.onClick = [this] { record(); };
  recording.setTooltip("Write what you hear to a WAV file, with every move of a fader");
  saving.onClick = [this] { save(); };
  saving.setTooltip("Write the whole file as it sounds with the gains that are set now");
  device.onClick = [this] { devices(); };
  device.setTooltip("Choose where sound comes from and goes to");
  recording.getProperties().set("kind", "mute");
  demonstration.setConnectedEdges(juce::Button::ConnectedOnRight);
  file.setConnectedEdges(juce::Button::ConnectedOnLeft | juce::Button::ConnectedOnRight);
  live.setConnectedEdges(juce::Button::ConnectedOnLeft);
  position.setSliderStyle(juce::Slider::LinearHorizontal);
  position.setTextBoxStyle(juce::Slider::NoTextBox, true, 0, 0);
  position.setTitle("Position");
  position.setScrollWheelEnabled(false);
  position.onValueChange = [this] { this->player.Seek(position.getValue()); };
  name.setMinimumHorizontalScale(0.8F);
  name.setBorderSize({});
  time.setBorderSize({});
  time.setJustificationType(juce::Justification::centredRight);
  for (auto* button : {&play, &demonstration, &file, &live, &recording, &saving, &device}) {
    addAndMakeVisible(button);
    button->setHasFocusOutline(true);
  }
  position.setHasFocusOutline(true);
  for (juce::Component* child :
       {static_cast<juce::Component*>(&name), static_cast<juce::Component*>(&position),
        static_cast<juce::Component*>(&time)})
    addAndMakeVisible(child);
  startTimerHz(10);
}

void SourceBar::SetNote(const juce::String& newNote) {
  note = newNote;
}

void SourceBar::lookAndFeelChanged() {
  const Look& look = Look::Of(*this);
  name.setFont(look.Text(13));
  name.setColour(juce::Label::textColourId, look.Colours().soft);
  time.setFont(look.Text(13));
  time.setColour(juce::Label::textColourId, look.Colours().soft);
}

void SourceBar::timerCallback() {
  const bool isLive = player.GetSource() == Player::Source::Live;
  const Recording* const played = player.GetRecording();
  const bool isDemonstration = !isLive && played && played->file == juce::File();
  demonstration.setToggleState(isDemonstration, juce::dontSendNotification);
  file.setToggleState(!isLive && played && !isDemonstration, juce::dontSendNotification);
  live.setToggleState(isLive, juce::dontSendNotification);
  play.setEnabled(!isLive && played);
  play.setButtonText(player.IsPlaying() || isLive ? "Pause" : "Play");
  saving.setEnabled(!isLive && played);
  recording.setToggleState(player.IsWriting(), juce::dontSendNotification);
  recording.setButtonText(player.IsWriting() ? "Stop " + MinutesAndSeconds(player.WrittenSeconds())
                                             : juce::String("Record"));
  position.setEnabled(!isLive && played);
  if (played && !isLive && !position.isMouseButtonDown()) {
    position.setRange(0, played->Seconds());
    position.setValue(player.PositionSeconds(), juce::dontSendNotification);
  }
  const juce::String text = note.isNotEmpty() ? note
                            : isLive          ? juce::String("What comes in is heard at once")
                            : isDemonstration ? juce::String("Speech over music")
                            : played          ? played->name
                                              : juce::String("Nothing to play");
  name.setText(text, juce::dontSendNotification);
  name.setTooltip(text);  // where it is cut
  time.setText(played && !isLive ? MinutesAndSeconds(player.PositionSeconds()) + " / " +
                                       MinutesAndSeconds(played->Seconds())
                                 : juce::String(),
               juce::dontSendNotification);
}

void SourceBar::resized() {
  auto area = getLocalBounds().reduced(16, 0).withSizeKeepingCentre(getWidth() - 32, 30);
  play.setBounds(area.removeFromLeft(76));
  area.removeFromLeft(2 * gap);
  demonstration.setBounds(area.removeFromLeft(116));
  file.setBounds(area.removeFromLeft(60));
  live.setBounds(area.removeFromLeft(88));
  area.removeFromLeft(2 * gap);
  device.setBounds(area.removeFromRight(76));
  area.removeFromRight(gap);
  saving.setBounds(area.removeFromRight(106));
  area.removeFromRight(gap);
  recording.setBounds(area.removeFromRight(88));
  area.removeFromRight(2 * gap);
  auto upper = area.removeFromTop(15);
  time.setBounds(upper.removeFromRight(80));
  name.setBounds(upper);
  position.setBounds(area);
}

void SourceBar::paint(juce::Graphics& g) {
  const Palette& palette = Look::Of(*this).Colours();
  g.fillAll(palette.panel);
  g.setColour(palette.line);
  g.fillRect(0, getHeight() - 1, getWidth(), 1);
}

}  // namespace Orvik::Tesmo::Plugin
