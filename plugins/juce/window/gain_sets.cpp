#include "juce/window/gain_sets.h"

#include <algorithm>

namespace Orvik::Tesmo::Plugin {
namespace {

const juce::Identifier gainsType("gains"), partType("part"), nameKey("name"), gainKey("gain"),
    muteKey("mute"), soloKey("solo"), masterKey("master"), masterMuteKey("mute_master"),
    windowType("window"), slotKey("slot");

constexpr float lessDb = -12;

float ValueOf(const Processor& processor, const juce::String& id) {
  return *processor.parameters.getRawParameterValue(id);
}

void SetValue(Processor& processor, const juce::String& id, float value) {
  juce::RangedAudioParameter& parameter = *processor.parameters.getParameter(id);
  const float place = parameter.convertTo0to1(value);
  if (place == parameter.getValue()) return;
  parameter.beginChangeGesture();
  parameter.setValueNotifyingHost(place);
  parameter.endChangeGesture();
}

juce::ValueTree Part(const juce::String& name, float gainDb, bool isMuted, bool isSolo) {
  return {partType, {{nameKey, name}, {gainKey, gainDb}, {muteKey, isMuted}, {soloKey, isSolo}}};
}

/// One part with a value of its own, the others at 0 dB.
juce::ValueTree OnePart(const juce::String& name, float gainDb, bool isMuted, bool isSolo) {
  return {gainsType, {{masterKey, 0}}, {Part(name, gainDb, isMuted, isSolo)}};
}

juce::File FolderOf(const Processor& processor) {
  const auto name = juce::File::createLegalFileName(processor.News().name).trim();
  return juce::File::getSpecialLocation(juce::File::userApplicationDataDirectory)
      .getChildFile("kalvrin/presets")
      .getChildFile(name.isEmpty() ? juce::String("no model") : name);
}

juce::File FileOf(const Processor& processor, const juce::String& name) {
  return FolderOf(processor).getChildFile(juce::File::createLegalFileName(name.trim()) + ".xml");
}

juce::ValueTree WindowState(const Processor& processor) {
  juce::ValueTree state = processor.parameters.state;
  return state.getOrCreateChildWithName(windowType, nullptr);
}

}  // namespace

juce::ValueTree GainsOf(const Processor& processor) {
  juce::ValueTree gains(gainsType);
  gains.setProperty(masterKey, ValueOf(processor, "master"), nullptr);
  gains.setProperty(masterMuteKey, ValueOf(processor, "mute_master") > 0.5F, nullptr);
  for (std::size_t i = 0; i < processor.Strips().size(); ++i) {
    const StripIds& ids = processor.Strips()[i];
    if (processor.IsStripUsed(i))
      gains.appendChild(Part(processor.StripName(i), ValueOf(processor, ids.gain),
                             ValueOf(processor, ids.mute) > 0.5F,
                             ValueOf(processor, ids.solo) > 0.5F),
                        nullptr);
  }
  return gains;
}

void SetGains(Processor& processor, const juce::ValueTree& gains) {
  processor.undo.beginNewTransaction();
  SetValue(processor, "master", gains.getProperty(masterKey, 0));
  SetValue(processor, "mute_master", gains.getProperty(masterMuteKey, false) ? 1.0F : 0.0F);
  for (std::size_t i = 0; i < processor.Strips().size(); ++i) {
    if (!processor.IsStripUsed(i)) continue;
    const StripIds& ids = processor.Strips()[i];
    const auto part = gains.getChildWithProperty(nameKey, processor.StripName(i));
    SetValue(processor, ids.gain, part.getProperty(gainKey, 0));
    SetValue(processor, ids.mute, part.getProperty(muteKey, false) ? 1.0F : 0.0F);
    SetValue(processor, ids.solo, part.getProperty(soloKey, false) ? 1.0F : 0.0F);
  }
}

std::vector<SimpleSet> SimpleSetsOf(const Processor& processor) {
  std::vector<SimpleSet> sets = {{"All at 0 dB", juce::ValueTree(gainsType)}};
  for (std::size_t i = 0; i + 1 < processor.Strips().size(); ++i) {
    if (!processor.IsStripUsed(i)) continue;
    const juce::String name = processor.StripName(i);
    sets.push_back({"Only " + name, OnePart(name, 0, false, true)});
    sets.push_back({"Without " + name, OnePart(name, 0, true, false)});
    sets.push_back({name + " 12 dB down", OnePart(name, lessDb, false, false)});
  }
  return sets;
}

juce::StringArray PresetNames(const Processor& processor) {
  juce::StringArray names;
  for (const auto& file : FolderOf(processor).findChildFiles(juce::File::findFiles, false, "*.xml"))
    names.add(file.getFileNameWithoutExtension());
  names.sortNatural();
  return names;
}

juce::String SavePreset(const Processor& processor, const juce::String& name) {
  const juce::File file = FileOf(processor, name);
  if (name.trim().isEmpty()) return "A preset needs a name.";
  if (const auto made = file.getParentDirectory().createDirectory(); made.failed())
    return made.getErrorMessage();
  if (!GainsOf(processor).createXml()->writeTo(file))
    return file.getFullPathName() + " cannot be written.";
  return {};
}

juce::String LoadPreset(Processor& processor, const juce::String& name) {
  const juce::File file = FileOf(processor, name);
  const auto gains = juce::ValueTree::fromXml(file.loadFileAsString());
  if (!gains.hasType(gainsType)) return file.getFullPathName() + " is no preset.";
  SetGains(processor, gains);
  return {};
}

juce::String DeletePreset(const Processor& processor, const juce::String& name) {
  const juce::File file = FileOf(processor, name);
  return file.deleteFile() ? juce::String() : file.getFullPathName() + " cannot be deleted.";
}

int HeardSlot(const Processor& processor) {
  return WindowState(processor).getProperty(slotKey, 0);
}

void HearSlot(Processor& processor, int slot) {
  auto state = WindowState(processor);
  const int before = HeardSlot(processor);
  if (slot == before) return;
  const juce::Identifier names[] = {"a", "b"};
  const auto kept = [&](int of) { return state.getOrCreateChildWithName(names[of], nullptr); };
  const auto now = GainsOf(processor);
  kept(before).removeAllChildren(nullptr);
  kept(before).appendChild(now, nullptr);
  state.setProperty(slotKey, slot, nullptr);
  // the other one begins as this one is
  if (const auto other = kept(slot).getChild(0); other.isValid()) SetGains(processor, other);
}

}  // namespace Orvik::Tesmo::Plugin
