#pragma once

// Plugins on disk, complete: nothing in them points out of their folder.

#include "plugin/described_model.h"

#include <filesystem>

namespace Orvik::Tesmo::Tool {

/// Writes the bundle FOLDER/kalvrin-SYMBOL.lv2 and gives its path. A bundle of that name is
/// replaced in one step; a folder that is no such bundle is refused. Refusal.
std::filesystem::path WriteLv2Bundle(const DescribedModel& model,
                                     const std::filesystem::path& folder);

/// Adds the model to FOLDER/kalvrin and puts the library that offers it at
/// FOLDER/kalvrin_ladspa.so; gives that. What other models are there stays. Refusal.
std::filesystem::path WriteLadspaModel(const DescribedModel& model,
                                       const std::filesystem::path& folder);

/// "$HOME/.lv2" for ".lv2". Refusal where there is no HOME.
std::filesystem::path InHome(const std::filesystem::path& relative);

/// One file, whole or not at all. Refusal.
void WriteTextFile(const std::filesystem::path& path, const std::string& text);

}  // namespace Orvik::Tesmo::Tool
