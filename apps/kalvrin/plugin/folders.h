#pragma once

// Writes plugins to disk. Library and engine are links to the installed files; with `isPortable`,
// and from a build tree, they are copies, so that no file of the plugin refers to one outside of
// its folder.

#include "plugin/described_model.h"
#include "wrapper/ports.h"

#include <filesystem>

namespace Orvik::Tesmo::Tool {

/// Writes the bundle FOLDER/kalvrin-SYMBOL.lv2, or .vst3, and returns its path. `of` is not Ladspa.
/// `model` is null for a plugin that takes any. A bundle of that name is replaced in one step.
/// Throws Refusal where it cannot write, where a folder of that name is no such bundle, or where
/// the plugin's binary is not installed.
std::filesystem::path WriteBundle(Plugin::Interface of, const Hosting::Description& description,
                                  const ModelFile* model, const std::filesystem::path& folder,
                                  bool isPortable);

/// Adds the model to FOLDER/kalvrin and puts the library that offers it at
/// FOLDER/kalvrin_ladspa.so, whose path it returns. Other models in the folder stay. Throws Refusal
/// where it cannot write.
std::filesystem::path WriteLadspaModel(const DescribedModel& model,
                                       const std::filesystem::path& folder,
                                       bool isPortable = false);

/// "$HOME/.lv2" for ".lv2". Throws Refusal where HOME is not set.
std::filesystem::path InHome(const std::filesystem::path& relative);

/// Writes one file, whole or not at all. Throws Refusal where it cannot write.
void WriteTextFile(const std::filesystem::path& path, const std::string& text);

}  // namespace Orvik::Tesmo::Tool
