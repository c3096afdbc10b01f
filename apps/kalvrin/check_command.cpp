#include "command_line/command.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "model/model.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "system/process.h"

#include <iostream>
#include <optional>

namespace Orvik::Tesmo::Tool {
namespace {

int Check(const std::string& path, StreamRequest request) {
  const ModelFile file = ReadModelFile(path);
  ContinueInChild();
  LoadedModel model(path);
  try {
    model.Load(file);
    const ModelFacts& facts = model.Facts();
    request = facts.Settle(request);
    model.MakeStream(request);
    std::cout << "accepted: " << file.path << '\n';
    PrintField(std::cout, "stream", StreamText(request, facts));
    PrintField(std::cout, "latency", LatencyText(facts.Latency(request), facts.sampleRateHz));
    PrintNotes(std::cout, Notes(facts));
    return ExitStatus::Ok;
  } catch (...) {
    const auto explanation = ExplainCurrentException(model.Description(), request);
    std::cout << "refused: " << explanation.reason << '\n';
    PrintField(std::cout, "found", explanation.found);
    PrintField(std::cout, "expected", explanation.expected);
    PrintField(std::cout, "change", explanation.change);
    return ExitStatus::Refused;
  }
}

std::function<int()> Declare(CLI::App& line) {
  struct Settings {
    std::string model;
    StreamRequest stream;
    bool isIsolated = false;
  };
  const auto s = std::make_shared<Settings>();
  AddOperand(line, "MODEL", s->model);
  AddStreamSizes(line, s->stream, true);
  AddFlag(line, "--isolated", s->isIsolated,
          "keep the engine in a process of its own; it always is, so this only says so");
  return [s] { return Check(s->model, s->stream); };
}

}  // namespace

constinit const Command checkCommand = {
    "check",
    "say whether the library takes a model, and if not, why and what to change",
    "Builds the stream that the library would build, at the sizes asked for. Exit status 0: the\n"
    "model is taken. 1: it is refused; the answer says what was found, what is expected and what\n"
    "to change.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
