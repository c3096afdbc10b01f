#include "juce/window/editor.h"

#include "juce/window.h"
#include "juce/window/gain_sets.h"
#include "juce/window/preferences.h"

#include <algorithm>
#include <cmath>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr int margin = 16, gap = 8, headerHeight = 44, footerHeight = 22;
constexpr int usualWidth = 1080, usualHeight = 640;
constexpr int looksPerSecond = 30, picturesPerSecond = 15, popChunk = 4096;
const char* const widthKey = "width";
const char* const heightKey = "height";

/// "Speech, Music and Rest".
juce::String Listed(const juce::StringArray& names) {
  if (names.size() < 2) return names.joinIntoString("");
  return names.joinIntoString(", ", 0, names.size() - 1) + " and " + names[names.size() - 1];
}

juce::String KiloHertz(double hz) {
  return juce::String(hz / 1000, std::fmod(hz, 1000) == 0 ? 0 : 1) + " kHz";
}

/// What the model is, in one line.
juce::String FactsOf(const ModelNews& news) {
  if (news.file == juce::File()) return "The input plays as it is.";
  const juce::String dot = juce::String::fromUTF8(" \xc2\xb7 ");
  return (news.sampleRateHz > 0 ? "runs at " + KiloHertz(news.sampleRateHz)
                                : juce::String("runs at any rate")) +
         dot + juce::String(news.classes.size()) +
         (news.classes.size() == 1 ? " class" : " classes") + dot +
         (news.licence.isEmpty() ? juce::String("licence not stated") : news.licence);
}

juce::String ExplanationOf(const ModelNews& news, bool takesAnyModel) {
  if (news.file == juce::File())
    return takesAnyModel
               ? "Open a model, or drop an .onnx file here: it takes the sound apart, and "
                 "you mix the parts again."
               : "There is no model.";
  juce::StringArray parts = news.classes;
  parts.add("Rest");
  return "The model takes the sound apart into " + Listed(parts) +
         ", which is what is left. A fader changes one part. With all faders at 0 dB you hear the "
         "sound as it came in.";
}

}  // namespace

Editor::Editor(Processor& processor)
    : AudioProcessorEditor(processor), processor(processor),
      bypassAttachment(*processor.parameters.getParameter("bypass"), bypass, &processor.undo),
      inputMeters{Meter("Input, left"), Meter("Input, right")},
      outputMeters{Meter("Output, left"), Meter("Output, right")}, playedBefore(popChunk),
      playedAfter(popChunk) {
  setLookAndFeel(&look);
  setTitle("kalvrin");
  setWantsKeyboardFocus(true);
  name.setMinimumHorizontalScale(0.8F);
  for (auto* label : {&name, &facts, &figures, &beforeTitle, &afterTitle}) {
    addAndMakeVisible(label);
    label->setBorderSize({});
  }
  figures.setTooltip(
      "Latency: from the input to the output. Load: the worst of the last second; at "
      "100 % audio is lost. Late: results of the model that were not there in time.");
  beforeTitle.setText("Before", juce::dontSendNotification);
  beforeTitle.setTooltip("The input, at the time of the output below it");
  afterTitle.setText("After", juce::dontSendNotification);
  afterTitle.setTooltip("The output, with your gains");

  open.onClick = [this] { ChooseModel(); };
  open.setTooltip("Open another model (Ctrl+O), or drop its .onnx file here");
  open.setTitle("Open a model");
  slotA.onClick = [this] {
    HearSlot(this->processor, 0);
    ShowFigures();
  };
  slotB.onClick = [this] {
    HearSlot(this->processor, 1);
    ShowFigures();
  };
  slotA.setTooltip("Two sets of gains to compare: A and B");
  slotB.setTooltip(slotA.getTooltip());
  slotA.setTitle("Gains A");
  slotB.setTitle("Gains B");
  slotA.setConnectedEdges(juce::Button::ConnectedOnRight);
  slotB.setConnectedEdges(juce::Button::ConnectedOnLeft);
  presets.onClick = [this] { ShowPresets(); };
  presets.setTooltip("Gains that are ready, and your own");
  undo.onClick = [this] { this->processor.undo.undo(); };
  undo.setTooltip("Undo (Ctrl+Z)");
  redo.onClick = [this] { this->processor.undo.redo(); };
  redo.setTooltip("Redo (Ctrl+Shift+Z)");
  bypass.setClickingTogglesState(true);
  bypass.setTooltip("Hear the input, as late as the output is: what comes in and what goes out "
                    "stay in time");
  settings.onClick = [this] { ShowSettings(); };
  for (auto* button : {&open, &slotA, &slotB, &presets, &undo, &redo, &bypass, &settings}) {
    addAndMakeVisible(button);
    button->setHasFocusOutline(true);
  }
  open.setVisible(processor.TakesAnyModel());
  addAndMakeVisible(banner);
  mixerView.setViewedComponent(&mixer, false);
  mixerView.setScrollBarsShown(false, true);
  addAndMakeVisible(mixerView);
  addAndMakeVisible(before);
  addAndMakeVisible(after);
  for (auto* meters : {&inputMeters, &outputMeters})
    for (Meter& meter : *meters)
      addAndMakeVisible(meter);

  juce::Desktop::getInstance().addDarkModeSettingListener(this);
  processor.addChangeListener(this);
  UseAppearance();
  ShowNews();
  const auto state = processor.parameters.state.getChildWithName("window");
  setSize(state.getProperty(widthKey, usualWidth), state.getProperty(heightKey, usualHeight));
  setResizable(true, true);
  setResizeLimits(leastWidth, leastHeight, 4000, 3000);
  startTimerHz(looksPerSecond);
}

Editor::~Editor() {
  processor.SetSeen(false);
  processor.removeChangeListener(this);
  juce::Desktop::getInstance().removeDarkModeSettingListener(this);
  removeAllChildren();  // they would look for the look
  setLookAndFeel(nullptr);
}

void Editor::UseAppearance() {
  look.Use(KeptAppearance());
  getTopLevelComponent()->sendLookAndFeelChange();
}

void Editor::lookAndFeelChanged() {
  const Palette& colours = look.Colours();
  name.setFont(look.Text(20, true));
  facts.setFont(look.Text(13));
  facts.setColour(juce::Label::textColourId, colours.soft);
  figures.setFont(look.Text(13));
  figures.setColour(juce::Label::textColourId, colours.soft);
  beforeTitle.setFont(look.Text(15, true));
  afterTitle.setFont(look.Text(15, true));
}

void Editor::changeListenerCallback(juce::ChangeBroadcaster*) {
  ShowNews();
}

void Editor::ShowNews() {
  const bool wasRefused = news.refusal.isNotEmpty();
  news = processor.News();
  if (news.refusal.isNotEmpty())
    fault = news.refusedFile.getFileName() + " does not play. " + news.refusal;
  else if (wasRefused)
    fault.clear();
  name.setText(news.isLoading        ? "Loading..."
               : news.name.isEmpty() ? "No model"
                                     : news.name,
               juce::dontSendNotification);
  facts.setText(FactsOf(news), juce::dontSendNotification);
  facts.setTooltip(news.file.getFullPathName());
  MakeStrips();
  ShowBanner();
  resized();
}

void Editor::MakeStrips() {
  juce::StringArray names;
  for (std::size_t i = 0; i < processor.Strips().size(); ++i)
    if (processor.IsStripUsed(i)) names.add(processor.StripName(i));
  if (!strips.empty() && names == stripNames) return;
  stripNames = names;
  strips.clear();
  stripNumbers.clear();
  auto& parameters = processor.parameters;
  for (std::size_t i = 0; i < processor.Strips().size(); ++i) {
    if (!processor.IsStripUsed(i)) continue;
    const StripIds& ids = processor.Strips()[i];
    const juce::String part = processor.StripName(i);
    const bool isRest = i + 1 == processor.Strips().size();
    strips.push_back(std::make_unique<Strip>(
        part,
        isRest ? juce::String("What the model takes for none of its classes")
               : "What the model takes for " + part,
        *parameters.getParameter(ids.gain), parameters.getParameter(ids.mute),
        parameters.getParameter(ids.solo), processor.undo));
    stripNumbers.push_back(i);
  }
  strips.push_back(
      std::make_unique<Strip>("Master", "All parts together", *parameters.getParameter("master"),
                              parameters.getParameter("mute_master"), nullptr, processor.undo));
  for (const auto& strip : strips) {
    mixer.addAndMakeVisible(*strip);
    strip->sendLookAndFeelChange();
  }
}

Strip* Editor::FindStrip(const juce::String& part) {
  for (const auto& strip : strips)
    if (strip->getTitle() == part) return strip.get();
  return nullptr;
}

void Editor::ShowHint(const juce::String& text, const juce::String& actionText,
                      std::function<void()> action, std::function<void()> close) {
  hint = {text, actionText, std::move(action), std::move(close)};
  ShowBanner();
}

void Editor::HideHint() {
  hint = {};
  ShowBanner();
}

void Editor::ShowFault(const juce::String& text) {
  fault = text;
  ShowBanner();
}

/// What has gone wrong goes before a hint, and a hint before the explanation.
void Editor::ShowBanner() {
  if (fault.isNotEmpty())
    banner.Say(Banner::Kind::Fault, fault, {}, nullptr, [this] { ShowFault({}); });
  else if (hint.text.isNotEmpty())
    banner.Say(Banner::Kind::Hint, hint.text, hint.actionText, hint.action, [this] {
      const auto close = hint.close;
      HideHint();
      if (close) close();
    });
  else
    banner.Say(Banner::Kind::Quiet, ExplanationOf(news, processor.TakesAnyModel()));
  resized();
}

void Editor::ChooseModel() {
  if (!processor.TakesAnyModel()) return;
  const juce::File start = news.file.exists() ? news.file.getParentDirectory() : juce::File();
  chooser = std::make_unique<juce::FileChooser>("Open a model", start, "*.onnx");
  chooser->launchAsync(juce::FileBrowserComponent::openMode |
                           juce::FileBrowserComponent::canSelectFiles,
                       [this](const juce::FileChooser& chosen) {
                         if (chosen.getResult() != juce::File())
                           processor.ChangeModel(chosen.getResult());
                       });
}

bool Editor::isInterestedInFileDrag(const juce::StringArray& files) {
  const bool isModel = files[0].endsWithIgnoreCase(".onnx");
  return files.size() == 1 && (isModel ? processor.TakesAnyModel() : openAudio != nullptr);
}

void Editor::filesDropped(const juce::StringArray& files, int, int) {
  SetDropTarget(false);
  const juce::File file(files[0]);
  if (file.hasFileExtension("onnx"))
    processor.ChangeModel(file);
  else if (openAudio)
    openAudio(file);
}

void Editor::SetDropTarget(bool isOne) {
  isDropTarget = isOne;
  repaint();
}

bool Editor::keyPressed(const juce::KeyPress& key) {
  using juce::KeyPress, juce::ModifierKeys;
  if (key == KeyPress('z', ModifierKeys::commandModifier, 0)) return processor.undo.undo(), true;
  if (key == KeyPress('z', ModifierKeys::commandModifier | ModifierKeys::shiftModifier, 0) ||
      key == KeyPress('y', ModifierKeys::commandModifier, 0))
    return processor.undo.redo(), true;
  if (key == KeyPress('o', ModifierKeys::commandModifier, 0)) return ChooseModel(), true;
  return false;
}

void Editor::timerCallback() {
  if (isShowing() != isSeen) processor.SetSeen(isSeen = isShowing());
  if (!isSeen) return;
  const juce::uint32 now = juce::Time::getMillisecondCounter();
  ShowLevels(lastLook == 0 ? 0 : (now - lastLook) / 1000.0);
  lastLook = now;
  ++ticks;
  if (ticks % (looksPerSecond / picturesPerSecond) == 0) ShowPlayed();  // the most to draw
  if (ticks % (looksPerSecond / 5) == 0) ShowFigures();
}

void Editor::ShowLevels(double seconds) {
  const bool hasSolo = processor.HasSolo();
  for (std::size_t i = 0; i < stripNumbers.size(); ++i) {
    const std::size_t number = stripNumbers[i];
    const bool isSilenced = processor.IsSilenced(number, hasSolo);
    const float gainDb =
        *processor.parameters.getRawParameterValue(processor.Strips()[number].gain);
    const float gain =
        isSilenced ? 0 : juce::Decibels::decibelsToGain(gainDb, Hosting::lowestGainDb);
    Level level = processor.TakeStripLevel(number);
    if (!HasAudio()) level = {};
    level.peak *= gain;
    level.rms *= gain;
    strips[i]->SetSilenced(isSilenced);
    strips[i]->Show(level, seconds);
  }
  Level all;
  for (int c = 0; c < 2; ++c) {
    const Level input = processor.TakeInputLevel(c), output = processor.TakeOutputLevel(c);
    const Level level = HasAudio() ? output : Level();
    inputMeters[static_cast<std::size_t>(c)].Show(HasAudio() ? input : Level(), seconds);
    outputMeters[static_cast<std::size_t>(c)].Show(level, seconds);
    all = {std::max(all.peak, level.peak), std::max(all.rms, level.rms)};
  }
  strips.back()->Show(all, seconds);
}

void Editor::ShowPlayed() {
  if (const double rate = processor.getSampleRate(); rate > 0 && rate != pictureRateHz) {
    pictureRateHz = rate;
    before.Begin(rate);
    after.Begin(rate);
  }
  for (int n = popChunk; n == popChunk;) {
    n = processor.TakePlayed(playedBefore.data(), playedAfter.data(), popChunk);
    before.Push(playedBefore.data(), static_cast<std::size_t>(n));
    after.Push(playedAfter.data(), static_cast<std::size_t>(n));
    picturesWithoutAudio = n > 0 ? 0 : picturesWithoutAudio + 1;
  }
}

/// A host stops calling where it plays nothing, and a device where it goes away.
bool Editor::HasAudio() const {
  return picturesWithoutAudio < picturesPerSecond;
}

void Editor::ShowFigures() {
  const double rate = processor.getSampleRate();
  const int late = processor.LateResults();
  if (rate > 0 && HasAudio()) {
    const juce::String space = juce::String::fromUTF8("    ");
    figures.setText("Latency " + juce::String(1000 * processor.LatencyFrames() / rate, 1) + " ms" +
                        space + "Load " + juce::String(juce::roundToInt(100 * processor.Load())) +
                        " %" + space + "Late results " + juce::String(late) + space +
                        KiloHertz(rate),
                    juce::dontSendNotification);
    figures.setColour(juce::Label::textColourId,
                      processor.Load() > 0.8F ? look.Colours().clips : look.Colours().soft);
  } else {
    figures.setText("No audio runs.", juce::dontSendNotification);
  }
  undo.setEnabled(processor.undo.canUndo());
  redo.setEnabled(processor.undo.canRedo());
  const int slot = HeardSlot(processor);
  slotA.setToggleState(slot == 0, juce::dontSendNotification);
  slotB.setToggleState(slot == 1, juce::dontSendNotification);
}

void Editor::ShowPresets() {
  juce::PopupMenu menu;
  menu.setLookAndFeel(&look);
  for (const SimpleSet& set : SimpleSetsOf(processor))
    menu.addItem(set.title, [this, gains = set.gains] { SetGains(processor, gains); });
  const juce::StringArray names = PresetNames(processor);
  juce::PopupMenu deletion;
  deletion.setLookAndFeel(&look);
  if (!names.isEmpty()) menu.addSectionHeader("Yours for this model");
  for (const auto& preset : names) {
    menu.addItem(preset, [this, preset] { ShowFault(LoadPreset(processor, preset)); });
    deletion.addItem(preset, [this, preset] { ShowFault(DeletePreset(processor, preset)); });
  }
  menu.addSeparator();
  menu.addItem("Save these gains...", [this] { AskForPresetName(); });
  if (!names.isEmpty()) menu.addSubMenu("Delete", deletion);
  menu.showMenuAsync(
      juce::PopupMenu::Options().withTargetComponent(presets).withParentComponent(this));
}

void Editor::AskForPresetName() {
  asking = std::make_unique<juce::AlertWindow>(
      "Save these gains",
      "The name of the preset, which is kept for this model:", juce::MessageBoxIconType::NoIcon,
      this);
  asking->setLookAndFeel(&look);
  asking->addTextEditor("name", "");
  asking->addButton("Save", 1, juce::KeyPress(juce::KeyPress::returnKey));
  asking->addButton("Cancel", 0, juce::KeyPress(juce::KeyPress::escapeKey));
  asking->enterModalState(true, juce::ModalCallbackFunction::create([this](int result) {
                            if (result == 1)
                              ShowFault(
                                  SavePreset(processor, asking->getTextEditorContents("name")));
                            asking->setVisible(false);
                          }));
  asking->getTextEditor("name")->grabKeyboardFocus();
}

void Editor::ShowSettings() {
  juce::PopupMenu menu;
  menu.setLookAndFeel(&look);
  menu.addSectionHeader("Colours");
  const std::pair<const char*, Appearance> appearances[] = {{"As the desktop", Appearance::Desktop},
                                                            {"Light", Appearance::Light},
                                                            {"Dark", Appearance::Dark}};
  for (const auto& [text, appearance] : appearances)
    menu.addItem(text, true, KeptAppearance() == appearance, [this, appearance = appearance] {
      KeepAppearance(appearance);
      UseAppearance();
    });
  const auto addChoices = [&](const char* id, const char* title, const juce::StringArray& texts) {
    auto* parameter = processor.parameters.getParameter(id);
    if (!parameter) return;
    menu.addSectionHeader(title);
    for (int i = 0; i < texts.size(); ++i) {
      const auto value = static_cast<float>(i);
      menu.addItem(texts[i], true, *processor.parameters.getRawParameterValue(id) == value,
                   [parameter, value] {
                     parameter->beginChangeGesture();
                     parameter->setValueNotifyingHost(parameter->convertTo0to1(value));
                     parameter->endChangeGesture();
                   });
    }
  };
  addChoices("mode", "The model runs",
             {"Automatic", "Direct: the least latency", "Spread: an even load"});
  addChoices("high_band", "Above the model's band",
             {"Follow: what the model does in its top octave", "Rest: the gain of Rest"});
  menu.showMenuAsync(
      juce::PopupMenu::Options().withTargetComponent(settings).withParentComponent(this));
}

int Editor::MixerWidth() const {
  const int count = static_cast<int>(strips.size());
  const int most = (getWidth() - 2 * margin) * 3 / 5;
  return std::min(count * Strip::usualWidth + (count - 1) * gap, most);
}

void Editor::LayOutMixer(juce::Rectangle<int> area) {
  mixerView.setBounds(area);
  const int count = static_cast<int>(strips.size());
  const int fitting = (area.getWidth() - (count - 1) * gap) / std::max(1, count);
  const int width = std::clamp(fitting, Strip::leastWidth, Strip::usualWidth);
  const int whole = count * width + (count - 1) * gap;
  const bool scrolls = whole > area.getWidth();
  mixer.setSize(whole, area.getHeight() - (scrolls ? mixerView.getScrollBarThickness() : 0));
  for (int i = 0; i < count; ++i)
    strips[static_cast<std::size_t>(i)]->setBounds(i * (width + gap), 0, width, mixer.getHeight());
}

void Editor::LayOutPictures(juce::Rectangle<int> area) {
  const int height = (area.getHeight() - gap) / 2;
  const bool isStereo = processor.getTotalNumOutputChannels() > 1;
  const auto layOut = [&](juce::Rectangle<int> row, juce::Label& title,
                          std::array<Meter, 2>& meters, Spectrogram& picture) {
    title.setBounds(row.removeFromTop(22));
    row.removeFromTop(2);
    for (std::size_t c = 0; c < meters.size(); ++c) {
      meters[c].setVisible(c == 0 || isStereo);
      if (!meters[c].isVisible()) continue;
      meters[c].setBounds(row.removeFromLeft(8));
      row.removeFromLeft(c == 0 && isStereo ? 3 : gap);
    }
    picture.setBounds(row);
  };
  layOut(area.removeFromTop(height), beforeTitle, inputMeters, before);
  layOut(area.removeFromBottom(height), afterTitle, outputMeters, after);
}

void Editor::resized() {
  if (getWidth() == 0) return;
  auto area = getLocalBounds().reduced(margin);
  auto header = area.removeFromTop(headerHeight);
  auto buttons = header.withSizeKeepingCentre(header.getWidth(), 30);
  const auto place = [&](juce::Button& button, int width, int space) {
    if (!button.isVisible()) return;
    button.setBounds(buttons.removeFromRight(width));
    buttons.removeFromRight(space);
  };
  place(settings, 76, gap);
  place(bypass, 72, 2 * gap);
  place(redo, 56, gap);
  place(undo, 56, 2 * gap);
  place(presets, 76, gap);
  place(slotB, 32, 0);
  place(slotA, 32, 2 * gap);
  place(open, 112, 2 * gap);
  header.setRight(buttons.getRight());
  name.setBounds(header.removeFromTop(26));
  facts.setBounds(header);
  figures.setBounds(area.removeFromBottom(footerHeight));
  area.removeFromBottom(gap);
  area.removeFromTop(gap);
  banner.setBounds(area.removeFromTop(banner.HeightFor(area.getWidth())));
  area.removeFromTop(gap + 4);
  LayOutMixer(area.removeFromLeft(MixerWidth()));
  area.removeFromLeft(margin);
  LayOutPictures(area);
  auto state = processor.parameters.state.getOrCreateChildWithName("window", nullptr);
  state.setProperty(widthKey, getWidth(), nullptr);
  state.setProperty(heightKey, getHeight(), nullptr);
}

void Editor::paint(juce::Graphics& g) {
  g.fillAll(look.Colours().back);
  if (!isDropTarget) return;
  g.setColour(look.Colours().accent);
  g.drawRoundedRectangle(getLocalBounds().toFloat().reduced(4), 8, 3);
}

std::unique_ptr<juce::AudioProcessorEditor> MakeWindow(Processor& processor) {
  return std::make_unique<Editor>(processor);
}

}  // namespace Orvik::Tesmo::Plugin
