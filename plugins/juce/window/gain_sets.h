#pragma once

// All gains of a processor at once: for A and B, and as presets. A set names the parts, so it suits
// every model that has classes of those names.

#include "juce/processor.h"

namespace Orvik::Tesmo::Plugin {

/// The gains, mutes and solos of the parts that the model has, and the master gain. Message thread,
/// like all here.
juce::ValueTree GainsOf(const Processor& processor);
/// One step of undo. A part that the set does not name gets 0 dB.
void SetGains(Processor& processor, const juce::ValueTree& gains);

/// A set that needs no file: every part but `name` as it is told.
struct SimpleSet {
  juce::String title;
  juce::ValueTree gains;
};
/// "All at 0 dB", and for each part alone, without it, and a little less of it.
std::vector<SimpleSet> SimpleSetsOf(const Processor& processor);

/// The names of the presets of the model that plays, sorted.
juce::StringArray PresetNames(const Processor& processor);
/// Return an empty text, or why it failed.
juce::String SavePreset(const Processor& processor, const juce::String& name);
juce::String LoadPreset(Processor& processor, const juce::String& name);
juce::String DeletePreset(const Processor& processor, const juce::String& name);

/// What A and B hold is kept with the session. Returns 0 for A, 1 for B.
int HeardSlot(const Processor& processor);
/// Stores the gains in the slot that is heard, and takes those of the other.
void HearSlot(Processor& processor, int slot);

}  // namespace Orvik::Tesmo::Plugin
