#include "command.h"
#include "command_line/child_process.h"
#include "diagnosis/refusals.h"
#include "diagnosis/report.h"
#include "model/engine.h"
#include "model/model_file.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"

#include <iostream>
#include <optional>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr Option<StreamRequest> options[] = {
    {"--channels", "N", "channels of the stream (default: as the model fixes them, else 2)",
     [](StreamRequest& request, std::string_view value) {
       request.channelCount = ParseCount(value, 1, mostChannels);
     }},
    {"--sequence", "N", "windows per evaluation (default: the model's own, else 4)",
     [](StreamRequest& request, std::string_view value) {
       request.sequenceSize = ParseCount(value, 1, mostWindows);
     }},
    {"--block", "N", "frames of a ProcessBlock call (default: one hop of the model)",
     [](StreamRequest& request, std::string_view value) {
       request.blockFrames = ParseCount(value, 1, mostBlockFrames);
     }},
    {"--isolated", "",
     "keep the engine in a process of its own; it always is, so this only says so",
     [](StreamRequest&, std::string_view) {}},
};

int Check(Arguments arguments) {
  StreamRequest request;
  const auto operands = ParseArguments<StreamRequest>(arguments, options, request);
  ExpectOperands(operands, checkCommand.operands);
  const ModelFile file = ReadModelFile(operands[0]);
  ContinueInChild();
  const auto engine = OpenEngine();
  std::optional<ModelDescription> description;
  try {
    const auto model = Dnn::LoadLearningModel(*engine, file.bytes.data(), file.bytes.size());
    description = DescribeModel(*model);
    const ModelFacts facts(*model);
    request = facts.Settle(request);
    AssembleStream(engine, model, request.sequenceSize, request.channelCount, request.blockFrames);
    std::cout << "accepted: " << file.path << '\n';
    PrintField(std::cout, "stream", StreamText(request, facts));
    PrintField(std::cout, "latency", LatencyText(facts.Latency(request), facts));
    PrintNotes(std::cout, Notes(facts));
    return ExitStatus::Ok;
  } catch (...) {
    const auto explanation =
        ExplainCurrentException(description ? &*description : nullptr, request);
    std::cout << "refused: " << explanation.reason << '\n';
    PrintField(std::cout, "found", explanation.found);
    PrintField(std::cout, "expected", explanation.expected);
    PrintField(std::cout, "change", explanation.change);
    return ExitStatus::Refused;
  }
}

}  // namespace

constinit const Command checkCommand = {
    "check",
    "MODEL",
    "say whether the library takes a model, and if not, why and what to change",
    "Builds the stream that the library would build, at the sizes asked for. Exit status 0: the\n"
    "model is taken. 1: it is refused; the answer says what was found, what is expected and what\n"
    "to change.\n",
    [](std::ostream& out) { PrintOptions<StreamRequest>(out, options); },
    Check,
};

}  // namespace Orvik::Tesmo::Tool
