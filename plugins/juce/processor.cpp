#include "juce/processor.h"

#include "juce/identity.h"
#include "juce/parameters.h"
#include "juce/window.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace Orvik::Tesmo::Plugin {
namespace {

constexpr const char* stateType = "kalvrin";
constexpr const char* modelKey = "model";

juce::String Text(const std::string& utf8) {
  return juce::String::fromUTF8(utf8.data(), static_cast<int>(utf8.size()));
}

juce::File FileOf(const std::string& path) {
  return path.empty() ? juce::File() : juce::File(Text(path));
}

std::string PathOf(const juce::File& file) {
  return file.getFullPathName().toStdString();
}

/// A parameter that is a switch; null: there is none.
bool IsOn(const std::atomic<float>* value) {
  return value && value->load(std::memory_order_relaxed) > 0.5F;
}

}  // namespace

Processor::Processor()
    : AudioProcessor(BusesProperties()
                         .withInput("Input", juce::AudioChannelSet::stereo())
                         .withOutput("Output", juce::AudioChannelSet::stereo())),
      parameters(*this, &undo, stateType, MakeParameters()), stripMeters(strips.size()),
      worker([this] { Work(); }) {
  const auto valueOf = [this](const juce::String& id) {
    return parameters.getRawParameterValue(id);
  };
  for (const StripIds& ids : strips)
    faders.push_back({valueOf(ids.gain), valueOf(ids.mute), valueOf(ids.solo)});
  faders.push_back({valueOf("master"), valueOf("mute_master"), nullptr});
  startTimerHz(10);
}

Processor::~Processor() {
  stopTimer();
  {
    const std::lock_guard lock(mutex);
    ends = true;
  }
  wake.notify_all();
  worker.join();
  cancelPendingUpdate();
}

/// Fills `strips` too.
Processor::Parameters Processor::MakeParameters() {
  Parameters made;
  std::vector<std::unique_ptr<juce::RangedAudioParameter>> mutes, solos;
  for (const Port& port : PortsOf(OwnDescription(), 1, Interface::Vst3)) {
    const std::size_t strip = strips.size();
    const bool isStrip = port.role == Role::ClassGain || port.role == Role::Rest;
    auto name = [this, strip, isStrip, fixed = Text(port.name)] {
      return isStrip ? StripName(strip) : fixed;
    };
    const juce::String mute = "mute_" + port.symbol, solo = "solo_" + port.symbol;
    if (isStrip) strips.push_back({port.symbol, mute, solo});
    if (auto parameter = MakeParameter(port, name)) made.add(std::move(parameter));
    if (port.IsGain()) mutes.push_back(MakeSwitch(mute, [name] { return "Mute " + name(); }));
    if (isStrip) solos.push_back(MakeSwitch(solo, [name] { return "Solo " + name(); }));
  }
  made.add(mutes.begin(), mutes.end());
  made.add(solos.begin(), solos.end());
  return made;
}

juce::String Processor::StripName(std::size_t strip) const {
  const auto& own = OwnDescription().classes;
  if (strip >= own.size()) return "Rest";
  const std::lock_guard lock(mutex);
  return Text(strip < playing.classes.size() ? playing.classes[strip] : own[strip]);
}

bool Processor::IsStripUsed(std::size_t strip) const {
  const std::lock_guard lock(mutex);
  return !TakesAnyModel() || strip + 1 == strips.size() || strip < playing.classes.size();
}

bool Processor::HasSolo() const {
  return std::ranges::any_of(faders, [](const Fader& fader) { return IsOn(fader.solo); });
}

bool Processor::IsSilenced(std::size_t strip, bool hasSolo) const {
  const Fader& fader = faders[strip];
  return IsOn(fader.mute) || (hasSolo && fader.solo && !IsOn(fader.solo));
}

bool Processor::TakesAnyModel() const {
  return OwnModel().empty();
}

ModelNews Processor::News() const {
  const std::lock_guard lock(mutex);
  return news;
}

void Processor::ChangeModel(const juce::File& file) {
  if (!TakesAnyModel()) return;
  {
    const std::lock_guard lock(mutex);
    wanted = PathOf(file);
    news.isLoading = true;
  }
  wake.notify_all();
  triggerAsyncUpdate();
}

/// For the audio thread to find. `loading` is held. Slow.
void Processor::LoadModel(const std::string& file) {
  StreamWish now;
  {
    const std::lock_guard lock(mutex);
    now = wish;
  }
  const bool isPrepared = now.hostRateHz != 0;
  if (!isPrepared) {  // to know what the model is
    now.hostRateHz = 48000;
    now.channelCount = static_cast<unsigned>(getTotalNumInputChannels());
  }
  auto asked = file.empty() ? NoModel() : LoadAnyModel(file, now);
  {
    const std::lock_guard lock(mutex);
    news.isLoading = wanted.has_value();
    news.refusal = asked->isRefused ? Text(asked->status) : juce::String();
    news.refusedFile = asked->isRefused ? FileOf(file) : juce::File();
    if (!asked->isRefused) {
      sessionFile = file;
      playing = asked->description;
      ++modelNumber;
      news.file = FileOf(file);
      news.name = Text(playing.name);
      news.sampleRateHz = playing.sampleRateHz;
      news.licence = Text(asked->licence);
      news.classes.clear();
      for (const std::string& name : playing.classes)
        news.classes.add(Text(name));
    }
  }
  triggerAsyncUpdate();
  if (isPrepared && !asked->isRefused) exchange.Offer(std::move(asked));
}

void Processor::handleAsyncUpdate() {
  updateHostDisplay(ChangeDetails().withParameterInfoChanged(true));
  sendChangeMessage();
}

void Processor::timerCallback() {
  const int latency = LatencyFrames();
  if (latency == lastLatency) return;
  lastLatency = latency;
  setLatencySamples(latency);
}

/// Loads models and meters classes.
void Processor::Work() {
  using namespace std::chrono_literals;
  std::unique_lock lock(mutex);
  while (!ends) {
    // what the audio thread gives back it cannot announce without a system call
    wake.wait_for(lock, isSeen ? 15ms : 250ms, [this] { return ends || wanted; });
    if (ends) break;
    lock.unlock();
    {
      const std::lock_guard loads(loading);
      exchange.FreeGivenBack();
      std::optional<std::string> file;
      {
        const std::lock_guard again(mutex);
        std::swap(file, wanted);
      }
      if (file) LoadModel(*file);
      RunClassMeters();
    }
    lock.lock();
  }
}

/// `loading` is held.
void Processor::RunClassMeters() {
  Hosting::Description description;
  std::string file;
  StreamWish now;
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(mutex);
    if (isSeen && wish.hostRateHz != 0 && news.file != juce::File()) {
      description = playing;
      file = PathOf(news.file);
      now = wish;
      number = modelNumber;
    }
  }
  if (number != meteredNumber) {
    meteredNumber = number;
    classMeters.reset();
    for (LevelMeter& meter : stripMeters)
      meter.Clear();
    if (number != 0) {
      try {
        classMeters = std::make_unique<ClassMeters>(description, *Hosting::LoadModelBytes(file),
                                                    now.hostRateHz, now.channelCount, stripMeters);
        toClassMeters->DropAll();
      } catch (const std::exception& error) {
        Say(error.what());
      }
    }
  }
  if (classMeters) classMeters->TakeFrom(*toClassMeters);
}

bool Processor::isBusesLayoutSupported(const BusesLayout& layout) const {
  const auto& counts = OwnDescription().channelCounts;
  const int count = layout.getMainInputChannels();
  return count == layout.getMainOutputChannels() &&
         std::ranges::count(counts, static_cast<unsigned>(count)) != 0;
}

void Processor::prepareToPlay(double rateHz, int blockFrames) {
  const std::lock_guard loads(loading);
  const StreamWish now{.hostRateHz = rateHz,
                       .channelCount = static_cast<unsigned>(getTotalNumInputChannels()),
                       .usualBlockFrames = static_cast<std::uint32_t>(std::max(blockFrames, 0)),
                       .sequenceSize = OwnDescription().sequenceSize,
                       .classCount = OwnDescription().classes.size()};
  bool isAsBefore = false;
  {
    const std::lock_guard lock(mutex);
    isAsBefore = instance && wish == now;
    wish = now;
  }
  if (!isAsBefore) MakeInstance(now);
  if (!instance) return;
  if (auto asked = exchange.Take()) instance->Stream().ChangeTo(std::move(asked));
  instance->Activate();
  ReadParameters();
  instance->Run(0);
  Report();
  setLatencySamples(lastLatency = LatencyFrames());
}

/// With its model, which is offered. `loading` is held.
void Processor::MakeInstance(const StreamWish& now) {
  std::string file;
  {
    const std::lock_guard lock(mutex);
    file = TakesAnyModel() ? sessionFile : OwnModel().string();
    news = {};
    playing = {};
  }
  exchange.Take().reset();
  instance.reset();
  classMeters.reset();
  meteredNumber = 0;
  values.clear();
  controls.clear();
  Hosting::Description description = OwnDescription();
  description.takesAnyModel = true;  // its own comes as every other does
  form.emplace(std::move(description), now.channelCount, std::filesystem::path(), Interface::Vst3);
  constexpr std::uint32_t longestBlock = 8192;
  instance = TryMakeInstance(*form, now.hostRateHz, now.usualBlockFrames, longestBlock);
  toClassMeters = std::make_unique<AudioPipe>(now.channelCount, std::size_t{1} << 15);
  if (!instance) return;
  values.resize(form->ports.size());
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Port& port = form->ports[i];
    if (port.IsAudio()) continue;
    values[i] = port.initial;
    instance->Connect(i, &values[i]);
    const auto* const value = parameters.getRawParameterValue(port.symbol);
    if (!value) continue;
    const auto fader = std::ranges::find(faders, value, &Fader::gain);
    controls.push_back({i, value, std::nullopt});
    if (fader != faders.end())
      controls.back().fader = static_cast<std::size_t>(fader - faders.begin());
  }
  LoadModel(file);
}

void Processor::ReadParameters() {
  const bool hasSolo = HasSolo();
  for (const Control& control : controls)
    values[control.port] = control.fader && IsSilenced(*control.fader, hasSolo)
                               ? Hosting::lowestGainDb
                               : control.value->load(std::memory_order_relaxed);
}

void Processor::Report() {
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (form->ports[i].role == Role::Load) load.store(values[i] / 100, std::memory_order_relaxed);
    if (form->ports[i].role == Role::Late)
      lateResults.store(static_cast<int>(values[i]), std::memory_order_relaxed);
    if (form->ports[i].role == Role::Latency)
      latencyFrames.store(static_cast<int>(values[i]), std::memory_order_relaxed);
  }
}

void Processor::processBlock(juce::AudioBuffer<float>& audio, juce::MidiBuffer&) {
  const auto frames = static_cast<std::size_t>(audio.getNumSamples());
  const auto channelCount = static_cast<std::size_t>(audio.getNumChannels());
  float* const* const channels = audio.getArrayOfWritePointers();
  const double rateHz = getSampleRate();
  const bool isShown = isSeen.load(std::memory_order_relaxed);
  const bool isRecorded = isShown && before.HasRoom(frames);
  if (isShown) {
    for (std::size_t c = 0; c < channelCount; ++c)
      inputMeters[c].Add(channels + c, 1, frames, rateHz);
    if (toClassMeters && toClassMeters->HasRoom(frames)) toClassMeters->Push(channels, frames);
  }
  if (isRecorded) before.PushMean(channels, channelCount, frames);
  if (instance) {
    if (auto asked = exchange.Take())
      exchange.GiveBack(instance->Stream().ChangeTo(std::move(asked)));
    ReadParameters();
    for (std::size_t i = 0; i < values.size(); ++i) {
      const Port& port = form->ports[i];
      if (port.IsAudio())
        instance->Connect(i, port.index < channelCount ? channels[port.index] : nullptr);
      if (port.role == Role::FreeWheel) values[i] = isNonRealtime() ? 1 : 0;
    }
    instance->Run(static_cast<std::uint32_t>(frames));
    exchange.GiveBack(instance->Stream().TakeFormer());
    Report();
  }
  if (isRecorded) after.PushMean(channels, channelCount, frames);
  for (std::size_t c = 0; isShown && c < channelCount; ++c)
    outputMeters[c].Add(channels + c, 1, frames, rateHz);
}

void Processor::SetSeen(bool seen) {
  if (seen) {
    after.DropAll();
    before.DropAll();
    for (auto* meters : {&inputMeters, &outputMeters})
      for (LevelMeter& meter : *meters)
        meter.Clear();
    delayed.assign(playedFrames, 0);
  }
  isSeen = seen;
  wake.notify_all();
}

Level Processor::TakeInputLevel(int channel) {
  return inputMeters.at(static_cast<std::size_t>(channel)).Take();
}

Level Processor::TakeOutputLevel(int channel) {
  return outputMeters.at(static_cast<std::size_t>(channel)).Take();
}

Level Processor::TakeStripLevel(std::size_t strip) {
  return stripMeters.at(strip).Take();
}

int Processor::TakePlayed(float* inputs, float* outputs, int most) {
  // `after` first: the audio thread looks for room in `before` only
  const std::size_t n = after.Pop(&outputs, static_cast<std::size_t>(most));
  before.Pop(&inputs, n);
  const auto latency = std::min(static_cast<std::size_t>(LatencyFrames()), delayed.size() - 1);
  for (std::size_t i = 0; i < n; ++i) {
    delayed[delayedPlace] = inputs[i];
    inputs[i] = delayed[(delayedPlace + delayed.size() - latency) % delayed.size()];
    delayedPlace = (delayedPlace + 1) % delayed.size();
  }
  return static_cast<int>(n);
}

const juce::String Processor::getName() const {
  return Text(OwnDescription().name);
}

juce::AudioProcessorParameter* Processor::getBypassParameter() const {
  return parameters.getParameter("bypass");
}

double Processor::getTailLengthSeconds() const {
  return getSampleRate() > 0 ? LatencyFrames() / getSampleRate() : 0;
}

juce::AudioProcessorEditor* Processor::createEditor() {
  return MakeWindow(*this).release();
}

void Processor::getStateInformation(juce::MemoryBlock& data) {
  juce::ValueTree state = parameters.copyState();
  {
    const std::lock_guard lock(mutex);
    if (TakesAnyModel()) state.setProperty(modelKey, Text(sessionFile), nullptr);
  }
  if (const auto xml = state.createXml()) copyXmlToBinary(*xml, data);
}

void Processor::setStateInformation(const void* data, int size) {
  const auto xml = getXmlFromBinary(data, size);
  if (!xml || !xml->hasTagName(stateType)) return;
  const juce::ValueTree state = juce::ValueTree::fromXml(*xml);
  parameters.replaceState(state);
  undo.clearUndoHistory();
  if (!TakesAnyModel()) return;
  const std::string file = state.getProperty(modelKey).toString().toStdString();
  const std::lock_guard loads(loading);
  {
    const std::lock_guard lock(mutex);
    wanted.reset();
    if (file == sessionFile && news.refusal.isEmpty()) return;
    sessionFile = file;  // also where it is missing today
  }
  LoadModel(file);
}

}  // namespace Orvik::Tesmo::Plugin

juce::AudioProcessor* JUCE_CALLTYPE createPluginFilter() {
  return new Orvik::Tesmo::Plugin::Processor();
}
