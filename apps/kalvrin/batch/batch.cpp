#include "batch/batch.h"

#include "command_line/errors.h"
#include "command_line/progress.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "render/renderer.h"
#include "system/files.h"
#include "system/process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <poll.h>
#include <sched.h>

namespace Orvik::Tesmo::Tool {
namespace {

using Json = nlohmann::ordered_json;

/// JSON is UTF-8, a path need not be: other bytes become U+FFFD.
std::string TextOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void MakeFolderFor(const std::string& path) {
  std::error_code error;
  const auto folder = std::filesystem::path(path).parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder, error);
  if (error) throw Refusal("cannot make the folder " + folder.native() + ": " + error.message());
}

/// Runs in a child process: renders one file after the other. The first loads the model.
class FileRenderer {
public:
  explicit FileRenderer(const BatchSettings& settings)
      : settings(settings), model(settings.render.model) {}

  std::string Render(const FileTask& task) {
    const auto start = std::chrono::steady_clock::now();
    Json answer;
    try {
      answer = TryRender(task);
    } catch (const UsageError& error) {
      answer = {{"status", "usage"}, {"error", error.what()}};
    } catch (const Interrupted&) {
      throw;
    } catch (...) {
      answer = {{"status", "failed"}, {"error", TextOfCurrentException()}};
    }
    answer["seconds"] =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return TextOf(answer);
  }

private:
  Json TryRender(const FileTask& task) {
    MakeFolderFor(task.output);
    if (!task.stemFolder.empty()) MakeFolderFor(task.stemFolder);
    RenderSettings own = settings.render;
    own.input = task.input;
    own.output = task.output;
    own.stemFolder = task.stemFolder;
    if (own.container == 0) own.container = ContainerForPath(own.output);
    Renderer renderer(std::move(own), model);
    ProgressLine hidden(ProgressLine::Otherwise::Never);
    renderer.Run(hidden);
    return {{"status", "done"},
            {"channels", renderer.ChannelCount()},
            {"sample_rate", renderer.SampleRate()},
            {"audio_seconds", renderer.AudioSeconds()},
            {"warnings", renderer.Warnings()}};
  }

  const BatchSettings& settings;
  LoadedModel model;
};

/// Runs in the parent: hands files out to the child processes and records what they answer.
class Batch {
public:
  Batch(const BatchSettings& settings, const std::vector<FileTask>& tasks)
      : settings(settings), tasks(tasks), renderer(settings) {
    counts.all = tasks.size();
    if (settings.log.empty()) return;
    log = Descriptor(open(settings.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (!log) throw Refusal("cannot write " + settings.log + ": " + SystemErrorText(errno));
  }

  void Run() {
    while (HandOut() || Working() != 0) {
      Collect();
      ShowProgress();
    }
  }

  void PrintSummary(std::ostream& out) const {
    const double elapsed = progress.ElapsedSeconds();
    PrintField(out, "files",
               std::to_string(counts.rendered) + " rendered, " + std::to_string(counts.skipped) +
                   " done before, " + std::to_string(counts.failed) + " failed");
    PrintField(out, "audio", DurationText(counts.audioSeconds));
    char speed[96];
    std::snprintf(speed, sizeof speed, "%.1f s of audio in each second, %.1f files",
                  counts.audioSeconds / elapsed, static_cast<double>(counts.rendered) / elapsed);
    PrintField(out, "speed", DurationText(elapsed) + ": " + speed);
  }

  bool AllWell() const { return counts.failed == 0; }

private:
  struct Seat {
    Worker worker;
    std::optional<std::size_t> task = {};
  };

  std::size_t Working() const {
    return static_cast<std::size_t>(
        std::ranges::count_if(seats, [](const Seat& seat) { return seat.task.has_value(); }));
  }

  /// Hands a file to every idle worker. Returns false when no file is left.
  bool HandOut() {
    for (; next < tasks.size(); ++next) {
      ThrowIfInterrupted();
      if (!settings.again && IsDone(tasks[next], settings.render.model)) {
        ++counts.skipped;
        Log(next, {{"status", "skipped"}});
        ShowProgress();
        continue;
      }
      Seat* const seat = IdleSeat();
      if (!seat) return true;
      seat->task = next;
      seat->worker.Give(next);
    }
    return false;
  }

  Seat* IdleSeat() {
    const auto idle =
        std::ranges::find_if(seats, [](const Seat& seat) { return !seat.task.has_value(); });
    if (idle != seats.end()) return &*idle;
    if (seats.size() == settings.jobs) return nullptr;
    seats.push_back({Worker([this](std::size_t task) { return renderer.Render(tasks[task]); })});
    return &seats.back();
  }

  /// Waits for answers, for a quarter of a second at most.
  void Collect() {
    std::vector<pollfd> lines;
    for (const Seat& seat : seats)
      lines.push_back({seat.worker.Get(), POLLIN, 0});
    constexpr int milliseconds = 250;
    if (poll(lines.data(), lines.size(), milliseconds) < 0) return ThrowIfInterrupted();
    for (std::size_t i = lines.size(); i-- > 0;)
      if (lines[i].revents != 0) Take(i);
  }

  void Take(std::size_t index) {
    Seat& seat = seats[index];
    const std::size_t task = *seat.task;
    if (const auto answer = seat.worker.TakeAnswer()) {
      seat.task.reset();
      return Record(task, Json::parse(*answer));
    }
    const std::string end = seat.worker.HowItEnded();
    seats.erase(seats.begin() + static_cast<std::ptrdiff_t>(index));
    ThrowIfInterrupted();
    Record(task,
           {{"status", "failed"}, {"error", "the process that ran the model is gone: " + end}});
  }

  void Record(std::size_t task, const Json& answer) {
    const std::string status = answer.at("status");
    if (status == "usage") throw UsageError(answer.at("error"));
    Log(task, answer);
    if (status == "failed") {
      ++counts.failed;
      return Say(tasks[task].input + ": " + answer.at("error").get<std::string>());
    }
    ++counts.rendered;
    counts.audioSeconds += answer.at("audio_seconds").get<double>();
    for (const std::string warning : answer.at("warnings"))
      Say("warning: " + tasks[task].input + ": " + warning);
  }

  void ShowProgress() {
    progress.Update([this](double seconds) { return BatchProgressText(counts, seconds); });
  }

  void Say(const std::string& text) {
    progress.Wipe();
    std::cerr << "kalvrin: " << text << '\n';
  }

  void Log(std::size_t task, const Json& answer) {
    if (!log) return;
    char now[32];
    const std::time_t time = std::time(nullptr);
    std::tm utc{};
    std::strftime(now, sizeof now, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &utc));
    Json line = {{"time", now}, {"input", tasks[task].input}, {"output", tasks[task].output}};
    line.update(answer);
    // One write for each line, so that the lines of several processes do not mix.
    const std::string text = TextOf(line) + '\n';
    if (const int error = WriteFully(log.Get(), text.data(), text.size()))
      throw Refusal("cannot write " + settings.log + ": " + SystemErrorText(error));
  }

  const BatchSettings& settings;
  const std::vector<FileTask>& tasks;
  FileRenderer renderer;  // used in the children only
  Descriptor log;
  BatchCounts counts;
  ProgressLine progress{ProgressLine::Otherwise::LineEveryTenSeconds};
  std::vector<Seat> seats;
  std::size_t next = 0;
};

}  // namespace

std::size_t UsableProcessors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return static_cast<std::size_t>(std::max(1, CPU_COUNT(&set)));
}

bool RunBatch(const BatchSettings& settings, const std::vector<FileTask>& tasks,
              std::ostream& out) {
  { const InputFile missingForAll(settings.render.model); }
  Batch batch(settings, tasks);
  batch.Run();
  batch.PrintSummary(out);
  return batch.AllWell();
}

}  // namespace Orvik::Tesmo::Tool
