#include "audio/formats.h"
#include "batch/batch.h"
#include "command_line/command.h"
#include "command_line/values.h"
#include "render/renderer.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace Orvik::Tesmo::Tool {
namespace {

/// What the command line asks for, with the options for many files.
struct Settings : RenderSettings {
  bool isList = false;
  std::optional<std::size_t> jobs;
  std::optional<Shard> shard;
  std::string log;
  bool again = false;
};

constexpr std::uint64_t mostJobs = 1024;

Hosting::HighBand ParseHighBand(const std::string& text) {
  if (text == "follow") return Hosting::HighBand::Follow;
  if (text == "rest") return Hosting::HighBand::Rest;
  throw UsageError("'" + text + "' is not follow or rest");
}

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
  LoadedModel model(settings.model);
  Renderer renderer(std::move(settings), model);
  {
    ProgressLine progress(ProgressLine::Otherwise::Nothing);
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

int Render(Settings settings) {
  if (settings.isList || IsFolder(settings.input)) return RenderMany(settings);
  return RenderOne(std::move(settings));
}

void DeclareForMany(CLI::App& line, const std::shared_ptr<Settings>& s) {
  AddFlag(line, "--list", s->isList, "IN is a list of files, one a line, and OUT a folder");
  AddOption(line, "--jobs", "N", "processes for many files (default: one a processor)",
            [s](const std::string& text) { s->jobs = ParseCount(text, 1, mostJobs); });
  AddOption(line, "--shard", "I/N", "of many files every N-th, from the I-th on (1 to N)",
            [s](const std::string& text) { s->shard = ParseShard(text); });
  AddOption(line, "--log", "FILE", "append a line of JSON for each of many files",
            [s](const std::string& text) { s->log = text; });
  AddFlag(line, "--again", s->again, "render also those of many files that are done");
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  AddOperand(line, "MODEL", s->model);
  AddOperand(line, "IN", s->input);
  AddOperand(line, "OUT", s->output);
  AddGains(line, "--gain", s->gains);
  AddOption(line, "--stems", "DIR",
            "also write each class, Rest and Mix to files of their own in DIR",
            [s](const std::string& text) { s->stemFolder = text.empty() ? "." : text; });
  AddStreamSizes(line, s->stream, false);
  AddFlag(line, "--raw-latency", s->rawLatency,
          "leave the latency in: the output starts late and is longer by it");
  AddFlag(line, "--resample", s->resample,
          "take audio of another rate than the model's; the output keeps its whole band");
  AddOption(line, "--high-band", "CHOICE",
            "above the model's band: follow (default) what the mix did below, or rest",
            [s](const std::string& text) { s->highBand = ParseHighBand(text); });
  AddOption(line, "--format", "FORMAT",
            "wav, flac or ogg (default: by the extension of OUT, wav without one)",
            [s](const std::string& text) { s->container = ParseContainer(text); });
  AddOption(line, "--encoding", "KIND",
            "pcm16, pcm24, pcm32 or float (default: like IN, as far as it goes)",
            [s](const std::string& text) { s->encoding = ParseEncoding(text); });
  DeclareForMany(line, s);
  return [s] { return Render(*s); };
}

}  // namespace

constinit const Command renderCommand = {
    "render",
    "run audio, a file or a folder, through a model and write the mix",
    "Reads IN (WAV, FLAC, Ogg and whatever else libsndfile reads), runs it through the model with\n"
    "the gains asked for, and writes OUT. The output is aligned with the input and has its "
    "length.\n"
    "A gain is a factor from 0 or decibels; all are 1 unless given. NaN and infinite samples in "
    "IN\n"
    "become silence. OUT appears whole at the end, or not at all.\n"
    "\n"
    "IN may be a folder, or with --list a list of files; OUT is a folder then. Outputs that are "
    "not\n"
    "older than their input and the model are left alone. Exit status 1: some file failed.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
