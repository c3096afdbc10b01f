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

/// Every `count`-th file, beginning with number `index` (from 0).
struct Shard {
  std::size_t index = 0, count = 1;
};

/// "2/8", the second of eight. Throws UsageError.
Shard ParseShard(std::string_view text);

/// Where a batch's files come from and go to.
struct FileTree {
  std::string input;  // a folder, or a list of paths, one a line ("-": standard input)
  bool isList = false;
  std::string output;      // a folder
  std::string stemFolder;  // empty: no stems
  int container = 0;  // libsndfile's number; 0: each as its input, WAV where that is not written
};

/// The files, in an order that every shard finds again: sorted by the bytes of their paths below
/// the folder, or as the list has them. A file's path, below the folder or in the list, becomes its
/// path below the output's folder. A folder is searched to any depth. Files count as audio by their
/// extension; hidden files and the folders of the output are left out. Throws Refusal where there
/// is no file, where two files would have one output, and where an output would replace its input.
std::vector<FileTask> CollectFiles(const FileTree& tree, const Shard& shard);

/// Whether the output exists and is not older than the input and `model`.
bool IsDone(const FileTask& task, const std::string& model);

}  // namespace Orvik::Tesmo::Tool
