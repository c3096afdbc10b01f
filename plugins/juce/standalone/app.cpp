// The program kalvrin-app.

#include "juce/standalone/desktop_scale.h"
#include "juce/standalone/main_view.h"
#include "juce/window/preferences.h"

#include <juce_audio_plugin_client/juce_audio_plugin_client.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>

namespace Orvik::Tesmo::Plugin {
namespace {

const char* const stateKey = "state";
const char* const devicesKey = "devices";
const char* const windowKey = "window";
const char* const fileKey = "file";

/// Set where the system, a terminal or the end of a session asks the program to end.
std::atomic<bool> isAskedToEnd = false;
static_assert(std::atomic<bool>::is_always_lock_free);

void HearOfTheEnd() {
  struct sigaction action {};
  action.sa_handler = [](int) { isAskedToEnd = true; };
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    sigaction(signal, &action, nullptr);
}

/// Beside the program in a build tree, and where it is installed; none: it is not there.
juce::File Separator() {
  auto folder = juce::File::getSpecialLocation(juce::File::currentExecutableFile)
                    .getLinkedTarget()
                    .getParentDirectory();
  for (int up = 0; up < 4; ++up, folder = folder.getParentDirectory())
    for (const char* place : {"models", "share/kalvrin/models"})
      if (auto file = folder.getChildFile(place).getChildFile("separator.onnx");
          file.existsAsFile())
        return file;
  return {};
}

class MainWindow final : public juce::DocumentWindow {
public:
  MainWindow(Processor& processor, Player& player, juce::PropertiesFile& settings)
      : DocumentWindow("kalvrin", juce::Colours::black, allButtons), settings(settings) {
    setUsingNativeTitleBar(true);
    setContentOwned(new MainView(processor, player, settings), true);
    setResizable(true, false);
    setResizeLimits(Editor::leastWidth, Editor::leastHeight + SourceBar::height, 4000, 3000);
    if (restoreWindowStateFromString(settings.getValue(windowKey))) return;
    const auto screen = juce::Desktop::getInstance().getDisplays().getPrimaryDisplay()->userArea;
    constexpr int titleBarHeight = 40;
    centreWithSize(std::min(getWidth(), screen.getWidth()),
                   std::min(getHeight(), screen.getHeight() - titleBarHeight));
  }

  MainView& View() { return *static_cast<MainView*>(getContentComponent()); }

  void Keep() { settings.setValue(windowKey, getWindowStateAsString()); }

  /// Where no component has the keyboard.
  bool keyPressed(const juce::KeyPress& key) override { return View().keyPressed(key); }
  void closeButtonPressed() override {
    juce::JUCEApplication::getInstance()->systemRequestedQuit();
  }

private:
  juce::PropertiesFile& settings;
};

class Program final : public juce::JUCEApplication, private juce::Timer {
public:
  const juce::String getApplicationName() override { return "kalvrin"; }
  const juce::String getApplicationVersion() override { return JucePlugin_VersionString; }
  bool moreThanOneInstanceAllowed() override { return true; }

  void initialise(const juce::String&) override {
    auto& desktop = juce::Desktop::getInstance();
    const auto* screen = desktop.getDisplays().getPrimaryDisplay();
    if (!screen) {
      std::fputs("kalvrin-app: there is no screen; DISPLAY has to name one\n", stderr);
      setApplicationReturnValue(1);
      return quit();
    }
    if (screen->scale == 1) desktop.setGlobalScaleFactor(static_cast<float>(WantedScale()));
    settings = OpenSettings("app.settings");
    processor = std::make_unique<Processor>();
    player = std::make_unique<Player>(*processor);
    juce::MemoryBlock state;
    const bool isFirst = !state.fromBase64Encoding(settings->getValue(stateKey));
    if (!isFirst)
      processor->setStateInformation(state.getData(), static_cast<int>(state.getSize()));
    window = std::make_unique<MainWindow>(*processor, *player, *settings);
    MainView& view = window->View();
    player->Open(settings->getXmlValue(devicesKey));
    if (isFirst) processor->ChangeModel(Separator());
    if (isFirst && Separator() == juce::File())
      view.ShowFault("The model separator.onnx, which comes with kalvrin, is not there. "
                     "Open another one.");
    const juce::File last(settings->getValue(fileKey));
    if (isFirst)
      view.BeginFirstStart();
    else
      view.PlayDemonstration(false);
    bool hasAudio = false;
    for (const auto& argument : getCommandLineParameterArray()) {
      const auto file = juce::File::getCurrentWorkingDirectory().getChildFile(argument);
      hasAudio = hasAudio || !file.hasFileExtension("onnx");
      view.Open(file, true);
    }
    if (!hasAudio && last.existsAsFile()) view.Open(last, false);
    window->setVisible(true);
    view.grabKeyboardFocus();
    HearOfTheEnd();
    startTimer(100);
  }

  void shutdown() override {
    stopTimer();
    Keep();
    window = nullptr;
    player = nullptr;
    processor = nullptr;
    settings = nullptr;
  }

  void systemRequestedQuit() override { quit(); }

private:
  void timerCallback() override {
    if (isAskedToEnd) return quit();
    if (++ticks % 20 == 0) Keep();
  }

  /// What the next start begins with. Also while the program runs, since a screen that goes away
  /// takes it along. Only what has changed is written.
  void Keep() {
    if (!window) return;
    juce::MemoryBlock state;
    processor->getStateInformation(state);
    settings->setValue(stateKey, state.toBase64Encoding());
    if (const auto devices = player->Devices().createStateXml())
      settings->setValue(devicesKey, devices.get());
    window->Keep();
  }

  int ticks = 0;
  std::unique_ptr<juce::PropertiesFile> settings;
  std::unique_ptr<Processor> processor;
  std::unique_ptr<Player> player;
  std::unique_ptr<MainWindow> window;
};

}  // namespace
}  // namespace Orvik::Tesmo::Plugin

juce::JUCEApplicationBase* juce_CreateApplication();
juce::JUCEApplicationBase* juce_CreateApplication() {
  return new Orvik::Tesmo::Plugin::Program;
}
