#include "batch/file_list.h"

#include "audio/formats.h"
#include "command_line/errors.h"
#include "command_line/values.h"
#include "system/files.h"
#include "system/process.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sndfile.h>
#include <system_error>

namespace Orvik::Tesmo::Tool {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view audioExtensions[] = {".wav",  ".wave", ".flac", ".ogg",  ".oga",
                                                ".opus", ".mp3",  ".aif",  ".aiff", ".aifc",
                                                ".au",   ".snd",  ".w64",  ".rf64", ".caf"};

bool IsAudio(const fs::path& path) {
  return std::ranges::find(audioExtensions, LowerCase(path.extension())) !=
         std::end(audioExtensions);
}

bool IsHidden(const fs::path& path) {
  return path.filename().native().starts_with('.');
}

fs::path Resolved(const std::string& folder) {
  std::error_code ignored;
  return fs::weakly_canonical(folder, ignored);
}

/// Paths below the folder.
std::vector<fs::path> Walk(const FileTree& tree) {
  const fs::path root = tree.input;
  std::vector<fs::path> own = {Resolved(tree.output)};
  if (!tree.stemFolder.empty()) own.push_back(Resolved(tree.stemFolder));
  if (own.front() == Resolved(tree.input))
    throw Refusal("OUT is the folder of the input itself; name another");
  std::vector<fs::path> found;
  try {
    for (fs::recursive_directory_iterator entry(root), end; entry != end; ++entry) {
      ThrowIfInterrupted();
      if (entry->is_directory() &&
          (IsHidden(*entry) || std::ranges::find(own, Resolved(entry->path())) != own.end()))
        entry.disable_recursion_pending();
      else if (!IsHidden(*entry) && IsAudio(*entry) && entry->is_regular_file())
        found.push_back(entry->path().lexically_relative(root));
    }
  } catch (const fs::filesystem_error& error) {
    throw Refusal("cannot read the folder " + tree.input + ": " + error.code().message());
  }
  std::ranges::sort(found, {}, &fs::path::native);
  return found;
}

std::vector<fs::path> ReadList(const std::string& path) {
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) throw Refusal("cannot read the list " + path + ": " + SystemErrorText(errno));
  }
  std::vector<fs::path> found;
  std::istream& lines = path == "-" ? std::cin : file;
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) found.emplace_back(line);
  if (lines.bad()) throw Refusal("cannot read the list " + path + " to its end");
  return found;
}

/// The path of an output below its folder.
fs::path OutputPath(const fs::path& input, int container) {
  fs::path path = input.relative_path().lexically_normal();
  if (path.native().starts_with(".."))
    throw Refusal(input.native() + " leads out of the output's folder; list it by its whole path");
  if (container != 0) return path.replace_extension(ExtensionOf(container));
  try {
    ContainerForPath(path.native());
    return path;
  } catch (const UsageError&) {
    return path.replace_extension(ExtensionOf(SF_FORMAT_WAV));
  }
}

}  // namespace

Shard ParseShard(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos)
    throw UsageError("'" + std::string(text) + "' is not I/N, such as 2/8");
  constexpr std::uint64_t most = 1'000'000;
  const std::uint64_t count = ParseCount(text.substr(slash + 1), 1, most);
  return {ParseCount(text.substr(0, slash), 1, count) - 1, count};
}

std::vector<FileTask> CollectFiles(const FileTree& tree, const Shard& shard) {
  const std::vector<fs::path> inputs = tree.isList ? ReadList(tree.input) : Walk(tree);
  if (inputs.empty()) throw Refusal("there is no audio file in " + tree.input);
  std::vector<FileTask> tasks;
  std::map<fs::path, fs::path> inputOf;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const fs::path below = OutputPath(inputs[i], tree.container);
    if (const auto [other, isNew] = inputOf.emplace(below, inputs[i]); !isNew)
      throw Refusal(other->second.native() + " and " + inputs[i].native() + " would both become " +
                    below.native());
    if (i % shard.count != shard.index) continue;
    FileTask task;
    task.input = tree.isList ? inputs[i] : tree.input / inputs[i];
    task.output = tree.output / below;
    if (Resolved(task.input) == Resolved(task.output))
      throw Refusal("the output of " + task.input + " would lie on it; name another OUT");
    if (!tree.stemFolder.empty())
      task.stemFolder = tree.stemFolder / fs::path(below).replace_extension();
    tasks.push_back(std::move(task));
  }
  return tasks;
}

bool IsDone(const FileTask& task, const std::string& model) {
  std::error_code error;
  const auto written = fs::last_write_time(task.output, error);
  if (error) return false;
  for (const std::string& source : {task.input, model})
    if (const auto changed = fs::last_write_time(source, error); error || changed > written)
      return false;
  return true;
}

}  // namespace Orvik::Tesmo::Tool
