#include "audio/audio_format.h"
#include "batch/batch.h"
#include "command.h"
#include "diagnosis/report.h"
#include "render/renderer.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace Orvik::Tesmo::Tool {
namespace {

/// A render of one file, or with what only many files need.
struct Settings : RenderSettings {
  bool isList = false;
  std::optional<std::size_t> jobs;
  std::optional<Shard> shard;
  std::string log;
  bool again = false;
};

constexpr std::uint64_t mostJobs = 1024;

using Value = std::string_view;
constexpr Option<Settings> options[] = {
    {"--gain", "NAME=GAIN", "gain of one class, 0.5 or -6dB; again for further classes",
     [](Settings& s, Value value) { s.classGains.push_back(ParseClassGain(value)); }},
    {"--rest", "GAIN", "gain of Rest, what no class claims (default 1)",
     [](Settings& s, Value value) { s.rest = ParseGain(value); }},
    {"--master", "GAIN", "gain of everything (default 1)",
     [](Settings& s, Value value) { s.master = ParseGain(value); }},
    {"--stems", "DIR", "also write each class, Rest and Mix to files of their own in DIR",
     [](Settings& s, Value value) { s.stemFolder = value.empty() ? "." : value; }},
    {"--sequence", "N", "windows per evaluation (default: the model's own, else 4)",
     [](Settings& s, Value value) { s.stream.sequenceSize = ParseCount(value, 1, mostWindows); }},
    {"--block", "N", "frames of a ProcessBlock call (default: one hop of the model)",
     [](Settings& s, Value value) {
       s.stream.blockFrames = ParseCount(value, 1, mostBlockFrames);
     }},
    {"--raw-latency", "", "leave the latency in: the output starts late and is longer by it",
     [](Settings& s, Value) { s.rawLatency = true; }},
    {"--resample", "", "convert audio of another rate to the model's and back",
     [](Settings& s, Value) { s.resample = true; }},
    {"--format", "FORMAT", "wav, flac or ogg (default: by the extension of OUT, wav without one)",
     [](Settings& s, Value value) { s.container = ParseContainer(value); }},
    {"--encoding", "KIND", "pcm16, pcm24, pcm32 or float (default: like IN, as far as it goes)",
     [](Settings& s, Value value) { s.encoding = ParseEncoding(value); }},
    {"--list", "", "IN is a list of files, one a line, and OUT a folder",
     [](Settings& s, Value) { s.isList = true; }},
    {"--jobs", "N", "processes for many files (default: one a processor)",
     [](Settings& s, Value value) { s.jobs = ParseCount(value, 1, mostJobs); }},
    {"--shard", "I/N", "of many files every N-th, from the I-th on (1 to N)",
     [](Settings& s, Value value) { s.shard = ParseShard(value); }},
    {"--log", "FILE", "append a line of JSON for each of many files",
     [](Settings& s, Value value) { s.log = value; }},
    {"--again", "", "render also those of many files that are done",
     [](Settings& s, Value) { s.again = true; }},
};

int RenderMany(const Settings& settings) {
  if (settings.model == "-") throw UsageError("MODEL cannot be standard input for many files");
  if (settings.output == "-") throw UsageError("OUT is a folder for many files");
  FileTree tree;
  tree.input = settings.input;
  tree.isList = settings.isList;
  tree.output = settings.output;
  tree.stemFolder = settings.stemFolder;
  tree.container = settings.container;
  const auto tasks = CollectFiles(tree, settings.shard.value_or(Shard{}));
  const std::size_t jobs = std::min(settings.jobs.value_or(UsableProcessors()), tasks.size());
  const BatchSettings batch{settings, std::max<std::size_t>(jobs, 1), settings.log, settings.again};
  return RunBatch(batch, tasks, std::cout) ? ExitStatus::Ok : ExitStatus::Refused;
}

int RenderOne(Settings settings) {
  if (settings.jobs || settings.shard || settings.again || !settings.log.empty())
    throw UsageError("--jobs, --shard, --log and --again go with a folder or --list");
  if (settings.model == "-" && settings.input == "-")
    throw UsageError("MODEL and IN cannot both be standard input");
  if (settings.container == 0) settings.container = ContainerForPath(settings.output);
  const bool toStandardOutput = settings.output == "-";
  RenderModel model(settings.model);
  Renderer renderer(std::move(settings), model);
  {
    ProgressBar progress;
    renderer.Run(progress);
  }
  for (const std::string& warning : renderer.Warnings())
    std::cerr << "kalvrin: warning: " << warning << '\n';
  renderer.PrintSummary(toStandardOutput ? std::cerr : std::cout);
  return ExitStatus::Ok;
}

bool IsFolder(const std::string& path) {
  std::error_code error;
  const auto type = std::filesystem::status(path, error).type();
  if (type == std::filesystem::file_type::none)
    throw Refusal("cannot read " + path + ": " + error.message());
  return type == std::filesystem::file_type::directory;
}

int Render(Arguments arguments) {
  Settings settings;
  const auto operands = ParseArguments<Settings>(arguments, options, settings);
  ExpectOperands(operands, renderCommand.operands);
  settings.model = operands[0];
  settings.input = operands[1];
  settings.output = operands[2];
  if (settings.isList || IsFolder(settings.input)) return RenderMany(settings);
  return RenderOne(std::move(settings));
}

}  // namespace

constinit const Command renderCommand = {
    "render",
    "MODEL IN OUT",
    "run audio, a file or a folder, through a model and write the mix",
    "Reads IN (WAV, FLAC, Ogg and whatever else libsndfile reads), runs it through the model with\n"
    "the gains asked for, and writes OUT. The output stands in step with the input and has its\n"
    "length. A gain is a factor from 0 or decibels; all are 1 unless given. Values in IN that are\n"
    "no finite numbers count as silence. OUT appears whole at the end, or not at all.\n"
    "\n"
    "IN may be a folder, or with --list a list of files; OUT is a folder then. What is there and\n"
    "not older than its input and the model is left alone. Exit status 1: some file failed.\n",
    [](std::ostream& out) { PrintOptions<Settings>(out, options); },
    Render,
};

}  // namespace Orvik::Tesmo::Tool
