#include "bench/paced_streams.h"
#include "bench/timed_stream.h"
#include "command_line/command.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "kernels/build.h"
#include "model/model.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "system/process.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <optional>

namespace Orvik::Tesmo::Tool {
namespace {

struct Settings {
  std::string model;
  StreamRequest stream;
  std::uint64_t seconds = 10, blocks = 1'000'000;
  std::uint64_t streams = 0, threads = 0;   ///< 0: not asked for
  const Kernels::Build* kernels = nullptr;  ///< null: those that the library chooses
};

/// The build of the kernels with that name. Throws UsageError unless this processor runs it.
const Kernels::Build& RunnableBuild(const std::string& name) {
  std::string runnable;
  for (const Kernels::Build* build : Kernels::builds) {
    if (!Kernels::RunsHere(*build)) continue;
    if (name == build->name) return *build;
    runnable += (runnable.empty() ? "" : ", ") + std::string(build->name);
  }
  throw UsageError("this processor runs " + runnable + "; not " + name);
}

double RateHz(const LoadedModel& model) {
  return model.Facts().sampleRateHz > 0 ? model.Facts().sampleRateHz : 48000;
}

TimedStream MakeTimedStream(const LoadedModel& model, const StreamRequest& settled) {
  return {model.MakeStream(settled), settled, model.Facts().layout.GetHopLength()};
}

std::string Format(const char* format, double value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

void PrintCells(std::string_view label, const std::vector<std::string>& cells) {
  std::cout << "  " << std::left << std::setw(12) << label << std::right;
  for (const std::string& cell : cells)
    std::cout << std::setw(11) << cell;
  std::cout << '\n';
}

std::vector<std::uint64_t> WithChoice(std::vector<std::uint64_t> usual, std::uint64_t choice) {
  if (std::ranges::find(usual, choice) == usual.end()) usual.push_back(choice);
  std::ranges::sort(usual);
  return usual;
}

/// One kind of figure over sizes: a row for each number of windows, a column for each block length.
struct Table {
  const char* title;
  std::vector<std::vector<std::string>> rows = {};
};

/// Latency and cost of the usual sizes and those asked for; "-" for sizes that the model refuses.
void PrintTables(const LoadedModel& model, const StreamRequest& asked, double seconds) {
  const auto sequences = WithChoice({1, 2, 4, 8}, asked.sequenceSize);
  const auto blocks = WithChoice({64, 128, 256, 480, 512, 1024}, asked.blockFrames);
  const double share = seconds / static_cast<double>(sequences.size() * blocks.size());
  Table latency = {"latency in ms"};
  Table factor = {
      "real-time factor: seconds that the stream takes for each second of audio, by median blocks"};
  Table peak = {"a block in which the model runs: share of the block's own time"};
  for (const std::uint64_t sequenceSize : sequences) {
    for (Table* table : {&latency, &factor, &peak})
      table->rows.emplace_back();
    for (const std::uint64_t blockFrames : blocks) {
      const StreamRequest sizes = {asked.channelCount, sequenceSize, blockFrames};
      std::optional<TimedStream> stream;
      try {
        stream.emplace(MakeTimedStream(model, sizes));
      } catch (...) {  // The model refuses these sizes; those asked for were tried before.
        for (Table* table : {&latency, &factor, &peak})
          table->rows.back().emplace_back("-");
        continue;
      }
      BlockTimes times = stream->Run(~std::uint64_t{0}, share);
      const double blockSeconds = static_cast<double>(blockFrames) / RateHz(model);
      const double audioSeconds = blockSeconds * static_cast<double>(times.Count());
      // Medians leave out the blocks that something else on the machine made slow.
      const double evaluating = Quantile(times.evaluating, 0.5);
      const double streamSeconds =
          evaluating * static_cast<double>(times.evaluating.size()) +
          Quantile(times.others, 0.5) * static_cast<double>(times.others.size());
      const double latencySeconds =
          static_cast<double>(model.Facts().Latency(sizes)) / RateHz(model);
      latency.rows.back().push_back(Format("%.1f", 1000 * latencySeconds));
      factor.rows.back().push_back(Format("%.4f", streamSeconds / audioSeconds));
      peak.rows.back().push_back(Format("%.1f %%", 100 * evaluating / blockSeconds));
    }
  }
  std::vector<std::string> heads;
  heads.reserve(blocks.size());
  for (const std::uint64_t blockFrames : blocks)
    heads.push_back(std::to_string(blockFrames));
  for (const Table* table : {&latency, &factor, &peak}) {
    std::cout << '\n' << table->title << '\n';
    PrintCells("windows", heads);
    for (std::size_t row = 0; row < sequences.size(); ++row)
      PrintCells(std::to_string(sequences[row]), table->rows[row]);
  }
}

/// A line with quantiles of `times`, from the median to the worst, in units of `unit` seconds.
void PrintQuantiles(std::string_view label, std::vector<float>& times, double unit,
                    const char* format) {
  std::vector<std::string> cells;
  for (const double share : {0.5, 0.99, 0.999, 0.9999, 1.0})
    cells.push_back(Format(format, Quantile(times, share) / unit));
  PrintCells(label, cells);
}

void PrintKind(const char* kind, std::vector<float>& times, double blockSeconds) {
  std::cout << kind << Counted(times.size(), "block") << '\n';
  PrintQuantiles("microseconds", times, 1e-6, "%.1f");
  PrintQuantiles("medians", times, Quantile(times, 0.5), "%.2f");
  PrintQuantiles("of its time", times, blockSeconds / 100, "%.1f %%");
}

void PrintBlocks(const LoadedModel& model, const Settings& settings) {
  TimedStream stream = MakeTimedStream(model, settings.stream);
  BlockTimes times = stream.Run(settings.blocks, static_cast<double>(settings.seconds));
  const double blockSeconds = static_cast<double>(settings.stream.blockFrames) / RateHz(model);
  std::cout << "\nsingle blocks: " << StreamText(settings.stream, model.Facts()) << "; "
            << Counted(times.Count(), "block") << " in " << DurationText(times.Sum()) << '\n';
  PrintCells("", {"median", "99 %", "99.9 %", "99.99 %", "worst"});
  if (!times.evaluating.empty()) {
    PrintKind("with the model: ", times.evaluating, blockSeconds);
    std::cout << "  of that on a processor\n";
    PrintQuantiles("microseconds", times.onProcessor, 1e-6, "%.1f");
    PrintQuantiles("medians", times.onProcessor, Quantile(times.onProcessor, 0.5), "%.2f");
  }
  if (!times.others.empty()) PrintKind("without it: ", times.others, blockSeconds);
}

void PrintPace(const Pace& pace) {
  PrintCells(std::to_string(pace.streams),
             {std::to_string(pace.late), std::to_string(pace.blocks),
              Format("%.1f %%", 100 * pace.rare), Format("%.1f %%", 100 * pace.worst),
              Format("%.2f", pace.processors), Format("%.1f", pace.firstMiB),
              Format("%.1f", pace.lastMiB), pace.isGivenUp ? "given up" : ""});
  std::cout << std::flush;
}

/// Finds the largest number of streams that holds, to about 3 %. `firstStreams` is a small one.
std::size_t LargestThatHolds(PacedStreams& streams, std::size_t firstStreams, std::size_t threads,
                             double seconds) {
  std::size_t holds = 0, fails = 0;
  for (std::size_t count = firstStreams;;) {
    streams.Grow(count);
    // One hiccup of the machine is not the streams' limit: a size has three tries.
    Pace pace;
    int tries = 0;
    do {
      pace = streams.Run(count, threads, seconds);
      PrintPace(pace);
    } while (!pace.Holds() && ++tries < 3);
    (pace.Holds() ? holds : fails) = count;
    if (fails != 0) {
      if (fails - holds <= 1 + holds / 32) return holds;
      count = (holds + fails) / 2;
      continue;
    }
    // The first step goes by what a stream costs.
    const double full = static_cast<double>(count * threads) / std::max(pace.processors, 1e-6);
    count = std::max(holds + holds / 4 + 1, static_cast<std::size_t>(0.8 * full));
  }
}

/// Many streams in step with time: those asked for, or as many as hold.
void PrintManyStreams(const LoadedModel& model, const Settings& settings) {
  const StreamRequest& sizes = settings.stream;
  const auto threads = static_cast<std::size_t>(std::max<std::uint64_t>(1, settings.threads));
  const auto seconds = static_cast<double>(settings.seconds);
  const std::uint64_t capacity = model.Facts().layout.GetHopLength() * sizes.sequenceSize;
  PacedStreams streams([&] { return model.MakeStream(sizes); }, sizes.channelCount,
                       sizes.blockFrames, capacity / sizes.blockFrames, RateHz(model));
  const std::size_t first = settings.streams != 0 ? settings.streams : 4 * threads;
  streams.Grow(1);
  const double before = ResidentMiB();
  std::vector<float> further = streams.Grow(first);
  std::cout << StreamText(sizes, model.Facts()) << "; "
            << Format("%.1f", 1000 * static_cast<double>(sizes.blockFrames) / RateHz(model))
            << " ms a block, " << Counted(threads, "thread") << '\n';
  if (!further.empty())
    std::cout << "a further stream: " << Format("%.2f", 1000 * Quantile(further, 0.5))
              << " ms to create, "
              << Format("%.2f", (ResidentMiB() - before) / static_cast<double>(further.size()))
              << " MiB\n";
  PrintCells("streams", {"late", "blocks", "99.99 %", "worst", "processors", "MiB", "MiB at end"});
  if (settings.streams != 0) {
    PrintPace(streams.Run(first, threads, seconds));
    return;
  }
  const std::size_t most = LargestThatHolds(streams, first, threads, seconds);
  std::cout << "holds: " << Counted(most, "stream") << '\n';
}

int RunBench(Settings& settings) {
  SelectKernelBuild();  // from here on it leaves the choice alone
  if (settings.kernels) ippVariantIndex = settings.kernels->index;
  const ModelFile file = ReadModelFile(settings.model);
  ContinueInChild();
  LoadedModel model(settings.model);
  try {
    model.Load(file);
    settings.stream = model.Facts().Settle(settings.stream);
    MakeTimedStream(model, settings.stream);
  } catch (...) {
    throw model.RefusalFor(settings.stream);
  }
  const ModelFacts& facts = model.Facts();
  std::cout << PrintableText(facts.info.GetName()) << ": "
            << Counted(settings.stream.channelCount, "channel") << ", "
            << Counted(facts.layout.GetHopLength(), "frame") << " a hop, " << RateHz(model) << " Hz"
            << (facts.sampleRateHz > 0 ? "" : " (the model states no rate)")
            << (settings.kernels ? std::string(", kernels ") + settings.kernels->name : "") << '\n';
  if (settings.streams != 0 || settings.threads != 0) {
    PrintManyStreams(model, settings);
    return ExitStatus::Ok;
  }
  PrintTables(model, settings.stream, static_cast<double>(settings.seconds));
  std::cout << std::flush;
  PrintBlocks(model, settings);
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto s = std::make_shared<Settings>();
  AddOperand(line, "MODEL", s->model);
  AddStreamSizes(line, s->stream, true);
  AddCount(line, "--seconds", s->seconds, 1, 86400,
           "time for the tables, and again for the single blocks; or for a number of streams "
           "(default: 10)");
  AddCount(line, "--blocks", s->blocks, 1, 100'000'000, "single blocks at most (default: 1000000)");
  AddCount(line, "--streams", s->streams, 1, 1'000'000,
           "instead: this many streams at once, each in step with time");
  AddCount(line, "--threads", s->threads, 1, 1024,
           "threads for them (default: 1); without --streams, finds the most that hold");
  AddOption(line, "--kernels", "NAME",
            "the build of the kernels to run, from sse3 on (default: the fastest here)",
            [s](const std::string& value) { s->kernels = &RunnableBuild(value); });
  return [s] { return RunBench(*s); };
}

}  // namespace

constinit const Command benchCommand = {
    "bench",
    "time a model on this machine, over windows per evaluation and block lengths",
    "Runs streams over the model on noise and prints tables to choose sizes by: latency, "
    "real-time\n"
    "factor, and the block in which the model runs against the time that it lasts. Then the\n"
    "median, the rare and the worst of many single blocks, which have the sizes asked for.\n"
    "All is measured on one core, with whatever else runs on the machine.\n"
    "\n"
    "With --streams or --threads it runs many streams as a server would: each gets a block when\n"
    "the block's time has passed, at a phase of its own. 99.99 % and worst are delays as shares\n"
    "of half a block's time; a block with a longer delay is late. Streams hold where not one\n"
    "block in 10000 is late.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
