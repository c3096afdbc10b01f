#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// One file of a batch. Paths are as the process can open them.
struct FileTask {
  std::string input, output;
  std::string stemFolder;  // empty: no stems
};

/// Every `count`-th file from number `index` (from 0), so that shards need no talk with each other.
struct Shard {
  std::size_t index = 0, count = 1;
};

/// "2/8", the second of eight. UsageError.
Shard ParseShard(std::string_view text);

/// Where a batch's files come from and go to.
struct FileTree {
  std::string input;  // a folder, or a list of paths, one a line ("-": standard input)
  bool isList = false;
  std::string output;      // a folder
  std::string stemFolder;  // empty: no stems
  int container = 0;  // libsndfile's number; 0: each as its input, WAV where that is not written
};

/// The files in a stable order: by the bytes of their paths below the folder, or as they stand in
/// the list. The output of a file has its path below the folder, or that of the list, below the
/// output's folder. A folder is taken with all below it, audio by its extension, without what is
/// hidden or in the folders of the output. Refusal where there is none, where two files have one
/// output, and where the output would lie on the input.
std::vector<FileTask> CollectFiles(const FileTree& tree, const Shard& shard);

/// Whether the output is there, whole, and not older than the input and `model`.
bool IsDone(const FileTask& task, const std::string& model);

}  // namespace Orvik::Tesmo::Tool
