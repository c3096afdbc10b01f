#include "audio/audio_format.h"
#include "command.h"
#include "model/report.h"
#include "render/renderer.h"

#include <iostream>

namespace Orvik::Tesmo::Tool {
namespace {

using Settings = RenderSettings;
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
};

int Render(Arguments arguments) {
  RenderSettings settings;
  const auto operands = ParseArguments<Settings>(arguments, options, settings);
  ExpectOperands(operands, renderCommand.operands);
  settings.model = operands[0];
  settings.input = operands[1];
  settings.output = operands[2];
  if (settings.model == "-" && settings.input == "-")
    throw UsageError("MODEL and IN cannot both be standard input");
  if (settings.container == 0) settings.container = ContainerForPath(settings.output);
  const bool toStandardOutput = settings.output == "-";
  Renderer renderer(std::move(settings));
  renderer.Run();
  renderer.PrintWarnings(std::cerr);
  renderer.PrintSummary(toStandardOutput ? std::cerr : std::cout);
  return ExitStatus::Ok;
}

}  // namespace

constinit const Command renderCommand = {
    "render",
    "MODEL IN OUT",
    "run an audio file through a model and write the mix",
    "Reads IN (WAV, FLAC, Ogg and whatever else libsndfile reads), runs it through the model with\n"
    "the gains asked for, and writes OUT. The output stands in step with the input and has its\n"
    "length. A gain is a factor from 0 or decibels; all are 1 unless given. Values in IN that are\n"
    "no finite numbers count as silence. OUT appears whole at the end, or not at all.\n",
    [](std::ostream& out) { PrintOptions<Settings>(out, options); },
    Render,
};

}  // namespace Orvik::Tesmo::Tool
