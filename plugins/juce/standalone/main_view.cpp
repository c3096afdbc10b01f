#include "juce/standalone/main_view.h"

#include "juce/window/preferences.h"

#include <juce_audio_utils/juce_audio_utils.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

const char* const audioFiles = "*.wav;*.flac;*.ogg;*.opus;*.mp3;*.aif;*.aiff";
const char* const fileKey = "file";
const char* const knowsKey = "knows the demonstration";
// the part of the demonstration that the hint is about
const char* const sinkingPart = "Music";
constexpr float sunkDb = -18, shownDb = -40;
constexpr double sinkSeconds = 2.5, restSeconds = 3.5, riseSeconds = 1.5;

double Now() {
  return juce::Time::getMillisecondCounterHiRes() / 1000;
}

/// The user's folder for music, or, where there is none, their home.
juce::File MusicFolder() {
  const auto folder = juce::File::getSpecialLocation(juce::File::userMusicDirectory);
  return folder.isDirectory() ? folder
                              : juce::File::getSpecialLocation(juce::File::userHomeDirectory);
}

/// A name that no file has yet.
juce::File NewRecording() {
  const juce::String stamp = juce::Time::getCurrentTime().formatted("%Y-%m-%d %H.%M.%S");
  return MusicFolder().getNonexistentChildFile("kalvrin " + stamp, ".wav", false);
}

}  // namespace

MainView::MainView(Processor& processor, Player& player, juce::PropertiesFile& settings)
    : processor(processor), player(player), settings(settings), editor(processor), bar(player) {
  setLookAndFeel(&editor.GetLook());
  juce::LookAndFeel::setDefaultLookAndFeel(&editor.GetLook());  // of dialogs, too
  setWantsKeyboardFocus(true);
  addAndMakeVisible(bar);
  addAndMakeVisible(editor);
  bar.chooseDemonstration = [this] { PlayDemonstration(true); };
  bar.chooseFile = [this] { ChooseAudio(); };
  bar.chooseLive = [this] { PlayLive(); };
  bar.record = [this] { ToggleWriting(); };
  bar.save = [this] { ChooseResult(); };
  bar.devices = [this] { ShowDevices(); };
  editor.openAudio = [this](const juce::File& file) { OpenAudio(file, true); };
  editor.setResizable(false, false);  // but with the window
  setSize(editor.getWidth(), editor.getHeight() + SourceBar::height);
  sendLookAndFeelChange();
  startTimerHz(30);
}

MainView::~MainView() {
  stops = true;
  if (work.joinable()) work.join();
  removeAllChildren();  // they would look for the look
  setLookAndFeel(nullptr);
  juce::LookAndFeel::setDefaultLookAndFeel(nullptr);
}

void MainView::resized() {
  auto area = getLocalBounds();
  bar.setBounds(area.removeFromTop(SourceBar::height));
  editor.setBounds(area);
}

void MainView::paint(juce::Graphics& g) {
  g.fillAll(editor.GetLook().Colours().back);
}

bool MainView::keyPressed(const juce::KeyPress& key) {
  if (key == juce::KeyPress('q', juce::ModifierKeys::commandModifier, 0))
    return juce::JUCEApplicationBase::getInstance()->systemRequestedQuit(), true;
  if (key != juce::KeyPress::spaceKey) return editor.keyPressed(key);
  player.SetPlaying(!player.IsPlaying());
  return true;
}

void MainView::Open(const juce::File& file, bool plays) {
  if (file.hasFileExtension("onnx"))
    processor.ChangeModel(file);
  else
    OpenAudio(file, plays);
}

void MainView::PlayDemonstration(bool plays) {
  player.SetSource(Player::Source::Loop);
  if (const auto* played = player.GetRecording(); !played || played->file != juce::File())
    player.SetRecording(ReadDemonstration());
  player.SetPlaying(plays);
  settings.removeValue(fileKey);
}

void MainView::PlayLive() {
  const auto* device = player.Devices().getCurrentAudioDevice();
  if (!device || device->getActiveInputChannels().isZero())
    return ShowFault("Nothing comes in: there is no input in use. Choose one under Sound.");
  player.SetSource(Player::Source::Live);
}

void MainView::OpenAudio(const juce::File& file, bool plays) {
  if (isWorking) return;
  if (work.joinable()) work.join();
  isWorking = true;
  ShowNote("Reading " + file.getFileName());
  work = std::thread([this, file, plays, safe = juce::Component::SafePointer(this)] {
    std::shared_ptr<const Recording> recording;
    juce::String fault;
    try {
      recording = ReadRecording(file);
    } catch (const std::bad_alloc&) {
      fault = file.getFileName() + " does not fit into the memory.";
    } catch (const std::exception& error) {
      fault = juce::String::fromUTF8(error.what());
    }
    isWorking = false;
    juce::MessageManager::callAsync([safe, recording, fault, file, plays] {
      if (!safe) return;
      safe->ShowNote({});
      if (!recording) return safe->ShowFault(fault);
      safe->player.SetRecording(recording);
      safe->player.SetSource(Player::Source::Loop);
      safe->player.SetPlaying(plays);
      safe->settings.setValue(fileKey, file.getFullPathName());
    });
  });
}

void MainView::ChooseAudio() {
  const juce::File last(settings.getValue(fileKey));
  chooser = std::make_unique<juce::FileChooser>("Play a file", last.exists() ? last : MusicFolder(),
                                                audioFiles);
  chooser->launchAsync(juce::FileBrowserComponent::openMode |
                           juce::FileBrowserComponent::canSelectFiles,
                       [this](const juce::FileChooser& chosen) {
                         if (chosen.getResult() != juce::File())
                           OpenAudio(chosen.getResult(), true);
                       });
}

void MainView::ToggleWriting() {
  if (player.IsWriting()) {
    const bool isWhole = player.StopWriting();
    if (!isWhole)
      ShowFault("The disk was too slow: parts of " + written.getFullPathName() + " are missing.");
    ShowNote("Written: " + written.getFullPathName());
    return;
  }
  try {
    written = NewRecording();
    player.StartWriting(written);
    ShowNote("Writing " + written.getFullPathName());
  } catch (const std::exception& error) {
    ShowFault(juce::String::fromUTF8(error.what()));
  }
}

void MainView::ChooseResult() {
  const auto* played = player.GetRecording();
  if (isWorking || !played) return;
  const auto folder =
      played->file != juce::File() ? played->file.getParentDirectory() : MusicFolder();
  const auto name = juce::File(played->name).getFileNameWithoutExtension() + " mixed.wav";
  chooser =
      std::make_unique<juce::FileChooser>("Save the result", folder.getChildFile(name), "*.wav");
  chooser->launchAsync(juce::FileBrowserComponent::saveMode |
                           juce::FileBrowserComponent::warnAboutOverwriting,
                       [this](const juce::FileChooser& chosen) {
                         if (chosen.getResult() != juce::File())
                           SaveResult(chosen.getResult().withFileExtension("wav"));
                       });
}

/// By a processor of its own, with the same model and gains.
void MainView::SaveResult(const juce::File& file) {
  if (isWorking || !player.GetRecording()) return;
  if (work.joinable()) work.join();
  juce::MemoryBlock state;
  processor.getStateInformation(state);
  isWorking = isSaving = true;
  share = 0;
  auto recording = player.GetShared();
  auto own = std::make_shared<Processor>();
  own->setStateInformation(state.getData(), static_cast<int>(state.getSize()));
  work = std::thread([this, file, recording, own, safe = juce::Component::SafePointer(this)] {
    juce::String fault;
    try {
      WriteResult(*recording, *own, file, [this](double done) {
        share = done;
        return !stops;
      });
    } catch (const std::bad_alloc&) {
      fault = "There is not enough memory to write " + file.getFileName() + ".";
    } catch (const std::exception& error) {
      fault = juce::String::fromUTF8(error.what());
    }
    isWorking = false;
    juce::MessageManager::callAsync([safe, fault, file, own] {
      if (!safe) return;
      safe->isSaving = false;
      safe->ShowNote(fault.isEmpty() ? "Written: " + file.getFullPathName() : juce::String());
      if (fault.isNotEmpty()) safe->ShowFault(fault);
    });
  });
}

void MainView::ShowDevices() {
  auto selector = std::make_unique<juce::AudioDeviceSelectorComponent>(player.Devices(), 0, 2, 1, 2,
                                                                       false, false, true, false);
  selector->setLookAndFeel(&editor.GetLook());
  selector->setSize(520, 400);
  juce::DialogWindow::LaunchOptions options;
  options.content.setOwned(selector.release());
  options.dialogTitle = "Sound";
  options.dialogBackgroundColour = editor.GetLook().Colours().back;
  options.componentToCentreAround = this;
  options.useNativeTitleBar = true;
  options.resizable = false;
  options.launchAsync();
}

void MainView::ShowNote(const juce::String& note) {
  bar.SetNote(note);
  noteUntil = note.isEmpty() ? 0 : Now() + 8;
}

void MainView::BeginFirstStart() {
  PlayDemonstration(true);
  isHintShown = !settings.getBoolValue(knowsKey);
  if (isHintShown) ShowHint();
}

/// Before the user has pulled the fader, and after.
void MainView::ShowHint() {
  const auto close = [this] {
    isHintShown = false;
    fadeBegan = 0;
    settings.setValue(knowsKey, true);
    if (auto* strip = editor.FindStrip(sinkingPart)) strip->SetPointedAt(false);
  };
  if (hasSunk)
    editor.ShowHint("The music sinks and the speech stays: the model tells them apart while the "
                    "sound plays. Compare the two pictures. Then take a file of your own or the "
                    "live input, above.",
                    {}, nullptr, close);
  else
    editor.ShowHint(
        "You hear somebody speak over music. Pull the fader of Music down and listen.", "Show me",
        [this] { fadeBegan = Now(); }, close);
}

/// Down, a while there, and back.
void MainView::MoveFader() {
  auto* strip = editor.FindStrip(sinkingPart);
  if (!strip) return;
  juce::Slider& fader = strip->Fader();
  const double at = Now() - fadeBegan;
  const double back = at - sinkSeconds - restSeconds;
  if (fader.isMouseButtonDown() || back > riseSeconds) {
    if (!fader.isMouseButtonDown()) fader.setValue(0, juce::sendNotificationSync);
    fadeBegan = 0;
    return;
  }
  const double depth = back > 0 ? 1 - back / riseSeconds : std::min(1.0, at / sinkSeconds);
  fader.setValue(depth * shownDb, juce::sendNotificationSync);
}

void MainView::timerCallback() {
  if (player.DeviceFault() != deviceFault) ShowFault(deviceFault = player.DeviceFault());
  if (isSaving && isWorking)
    ShowNote("Saving: " + juce::String(juce::roundToInt(100 * share)) + " %");
  else if (noteUntil != 0 && Now() > noteUntil && !player.IsWriting())
    ShowNote({});
  if (fadeBegan != 0) MoveFader();
  if (!isHintShown) return;
  auto* strip = editor.FindStrip(sinkingPart);
  if (!strip) return;
  strip->SetPointedAt(!hasSunk);
  if (!hasSunk && strip->Fader().getValue() <= sunkDb) {
    hasSunk = true;
    strip->SetPointedAt(false);
    ShowHint();
  }
}

}  // namespace Orvik::Tesmo::Plugin
