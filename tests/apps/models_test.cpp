// `kalvrin info` and `kalvrin check` over models of every kind, and the frame around all commands.

#include "apps/tool_process.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

namespace TestSupport {
namespace {

using Options = AudioModelOptions;

TEST(CommandLine, HelpVersionAndWrongUse) {
  // Words on standard output where the status is 0, on standard error otherwise.
  const struct {
    std::string arguments;
    int status;
    const char* words;
  } rows[] = {
      {"", 2, "usage:"},
      {"--help", 0, "render MODEL IN OUT"},
      {"help render", 0, "--gain NAME=GAIN"},
      {"render a b c --help", 0, "usage: kalvrin render MODEL IN OUT"},
      {"--version", 0, "kalvrin 1."},
      {"plan 480", 0, "radices    16 3 5\n  work       1984 bytes\n"},
      {"plan 0", 2, "'0' is not a whole number from 1 to 536870912"},
      {"plan 134217729", 1, "no transform of 134217729 samples can be planned"},
      {"help nonsense", 2, "kalvrin: there is no command 'nonsense'"},
      {"help info check", 2, "kalvrin: help takes one command"},
      {"nonsense", 2, "'kalvrin help' lists what there is"},
      {"--nonsense", 2, "kalvrin: there is no option --nonsense"},
      {"info", 2, "kalvrin: MODEL is required; 'kalvrin help info' explains it"},
      {"info ''", 2, "MODEL is empty"},
      {"info -t a b", 2, "there is no option -t"},
      {"info a b", 2, "'b' is one too many"},
      {"info -- --help", 1, "cannot read --help: No such file"},
      {"check --channel=1", 2, "there is no option --channel;"},
      {"check a --channels", 2, "--channels needs a value"},
      {"check --channels= a", 2, "--channels: '' is not a whole number from 1 to 1024"},
      {"check a --channels 3x", 2, "--channels: '3x' is not a whole number from 1 to 1024"},
      {"render a b", 2, "OUT is required"},
      {"render a b c.mp3", 2, "no audio format has the extension .mp3"},
      {"render a b c --format mp3", 2, "--format: 'mp3' is not wav, flac or ogg"},
      {"render a b c --raw-latency=1", 2, "--raw-latency takes no value"},
      {"render a b c --gain Speech", 2, "--gain: 'Speech' is not NAME=GAIN"},
      {"render a b c --rest=-1", 2, "--rest: '-1' is no gain"},
      {"render - - c", 2, "MODEL and IN cannot both be standard input"},
      {"info /nowhere/model", 1, "cannot read /nowhere/model: No such file or directory"},
      {"info /tmp", 1, "cannot read /tmp: Is a directory"},
      {"info /dev/null", 1, "/dev/null is empty"},
      {"--version > /dev/full", 1, "cannot write standard output: No space left on device"},
  };
  const TemporaryFolder folder;
  for (const auto& row : rows) {
    const Outcome outcome = folder.Run(std::string("$TOOL ") + row.arguments);
    EXPECT_EQ(outcome.exitStatus, row.status) << row.arguments << '\n' << outcome.err;
    ExpectPart(row.status == 0 ? outcome.out : outcome.err, row.words, row.arguments);
    EXPECT_EQ(row.status == 0 ? outcome.err : outcome.out, "") << row.arguments;
  }
}

/// What a command says of a model.
struct Row {
  Options model;
  std::string arguments;
  std::vector<std::string> parts;
  int status = 0;
};

void ExpectAnswers(const std::string& command, const std::vector<Row>& rows) {
  const TemporaryFolder folder;
  for (const Row& row : rows) {
    WriteFile(folder / "model.onnx", MakeAudioModel(row.model));
    const Outcome outcome = folder.Run("$TOOL " + command + " model.onnx " + row.arguments);
    EXPECT_EQ(outcome.exitStatus, row.status) << row.arguments << ": " << outcome.err;
    EXPECT_EQ(outcome.err.starts_with("kalvrin: "), row.status != 0) << row.arguments;
    for (const std::string& part : row.parts)
      ExpectPart(outcome.out + outcome.err, part, row.arguments);
  }
}

TEST(Bench, PrintsTablesAndSingleBlocks) {
#if defined(__x86_64__)
  const std::string slowest = "sse3";
#else
  const std::string slowest = "neon";
#endif
  const std::vector<Row> rows = {
      {{.features = 512, .metadata = {{"SampleRate", "16000"}}},
       "--block 64 --sequence 3",
       {"2 channels, 256 frames a hop, 16000 Hz\n", "windows              64        128",
        "  3                  60.0 ", "real-time factor", "; 20 blocks in", "99.99 %",
        "with the model: 1 block\n", "of that on a processor\n", "without it: 19 blocks\n"}},
      {{.features = 512, .inputShape = Dimensions{3, 2, 512}},
       "--sequence 2",
       {"3 channels, 256 frames a hop, 48000 Hz (the model states no rate)",
        "  1                     -          -", "with the model: 10 blocks"}},
      {{.features = 512},
       "--block 512 --sequence 3",
       {"with the model: 14 blocks\n", "without it: 6 blocks\n"}},
      {{.features = 512}, "--kernels " + slowest, {", kernels " + slowest + "\n"}},
      {{.features = 512}, "--kernels fast", {"--kernels", "this processor runs " + slowest}, 2},
      {{.failsFromEvaluation = 0}, "", {"the inference engine cannot run"}, 1},
      {{.failsFromEvaluation = 50}, "", {"kalvrin: the model failed: "}, 1},
  };
  ExpectAnswers("bench --seconds 1 --blocks 20", rows);
}

TEST(Bench, PacesManyStreams) {
  const Options model = {.features = 512, .metadata = {{"SampleRate", "16000"}}};
  ExpectAnswers(
      "bench --seconds 1 --block 256",
      {{model,
        "--streams 3 --threads 2",
        {"; 16.0 ms a block, 2 threads\n", "a further stream: ", "  3                     ",
         // each stream has a block in time for each of 62 or 63 of its 16 ms
         " 18"}},
       {model, "--threads 0", {"--threads"}, 2},
       {{.features = 512, .failsFromEvaluation = 20},
        "--streams 2",
        {"kalvrin: the model failed: "},
        1}});
}

TEST(Info, PrintsWhatAModelDeclares) {
  const std::vector<Row> rows = {
      {{.features = 512},
       "",
       {"(Model name N/A) (", "works on   samples",
        "window     512 frames, none before the model, hann behind\n", "hop        256",
        "4 windows per evaluation, the library's default", "lookahead  0 windows", "states     0",
        "input      float32 [channels *, windows *, samples 512]  audio",
        "output     float32 [classes 1, channels *, windows *, samples 512]  audio",
        "1          Extracted", "none       every channel is a mixture",
        "SampleRate                   48000 (default)",
        "AudioClassNames              [\"Extracted\"] (default)",
        "note: a stream takes SampleRate as 0,", "block 128  1152 frames\n",
        "block 480  1280 frames\n", "block 512  768 frames\n"}},
      {{.features = 257,
        .lookahead = 2,
        .classGains = {1, 0.5F},
        .inputRank = 4,
        .outputRank = 5,
        .states = {{.element = Element::Int64, .shape = {"C", 3}}},
        .metadata = {{"Name", "Splitter"},
                     {"SampleRate", "16000"},
                     {"LookaheadNumBlocks", "2"},
                     {"BaselineSequenceSize", "6"},
                     {"AudioClassNames", "[\"Speech\",\"\xC3\x9C\"]"},
                     {"ChannelToAudioClassBindings", "[[1,\"speech\"],[0,\"Noise\"]]"},
                     {"WindowShape", R"({"shape": "hann", "length": 400})"},
                     {"Author", "someone\nelse"}}},
       "",
       {"Splitter (", "spectra of 257 bins", "window     512 frames (32.0 ms), hann of 400 frames",
        "6 windows per evaluation, the model's own choice", "lookahead  2 windows", "states     1",
        "[channels *, windows *, bins 257, components 2]", "state1     int64 [*, 3]  state 1",
        "newState1  int64 [*, 3]  state 1", "1          Speech", "2          \xC3\x9C",
        "channel 1  carries speech alone", "OverlapInSamples             0 (default)",
        "SampleRate                   16000\n",
        "Author                       someone?else (not read)", "block 256  2048 frames (128.0 ms)",
        "note: channel 0 is bound to Noise, which is no class"}},
      {{.classGains = {1, 1, 1},
        .metadata = {{"SampleRate", "44100.0"},
                     {"LookaheadNumBlocks", "null"},
                     {"AudioClassNames", "[\"A\",\"rest\",\"a\"]"}}},
       "",
       {"48000 (default; the model's 44100.0 is of another type)",
        "a stream takes SampleRate as 44100", "0 (default; the model's null is of another type)",
        "note: class 3, a, has the name of an earlier class",
        "note: the class rest hides the remainder"}},
      {{.outputFeatures = 10},
       "",
       {"note: the output's windows (Features) are longer than the input's"}},
      {{.features = 7},
       "",
       {"input      float32 [*, *, 7]", "is refused: The window length (Features) must be even ("},
       1},
  };
  ExpectAnswers("info", rows);
}

TEST(Check, AcceptsAModelAtTheSizesItTakes) {
  const std::vector<Row> rows = {
      {{.features = 512, .metadata = {{"SampleRate", "48000"}}},
       "",
       {"accepted: ", "2 channels, 4 windows of 512 frames per evaluation, blocks of 256 frames",
        "latency    1024 frames (21.3 ms)"}},
      {{},
       "--channels=3 --sequence=2 --block=5",
       {"3 channels, 2 windows of 8 frames per evaluation, blocks of 5 frames",
        "latency    12 frames\n"}},
      {{.inputShape = Dimensions{5, 6, 8}, .metadata = {{"BaselineSequenceSize", "6"}}},
       "",
       {"5 channels, 6 windows"}},
  };
  ExpectAnswers("check", rows);
}

/// A row for each kind of finding: of a tensor, of both, of sizes asked for, of metadata, of
/// states.
TEST(Check, ExplainsRefusals) {
  const Dimensions windows = {"C", "T", 8};
  const auto model = [&](Element in) { return ModelBuilder().Input("input", in, windows); };
  const struct {
    const char* name;
    std::string model;
    std::string arguments;
    const char *reason, *found, *change;
  } rows[] = {
      {"no model", "These are no model bytes.", "", "the file is no model", "",
       "export the model anew"},
      {"float64 in",
       model(Element::Double)
           .Output("output", Element::Float, windows)
           .Node("Cast", {"input"}, {"output"}, {{"to", static_cast<int>(Element::Float)}})
           .Build(),
       "", "The first input is not a tensor of 32-bit floats", "'input' is double [*, *, 8]",
       "Cast"},
      {"spectra in only", MakeAudioModel({.inputRank = 4}), "", "Spectra (Components) must be",
       "'output'", "neither"},
      {"negative lookahead", MakeAudioModel({.metadata = {{"LookaheadNumBlocks", "-1"}}}), "",
       "LookaheadNumBlocks of the model is negative", "LookaheadNumBlocks is -1",
       "correct LookaheadNumBlocks"},
      {"window too long",
       MakeAudioModel({.metadata = {{"WindowShape", R"({"shape": "hann", "length": 9})"}}}), "",
       "The window of WindowShape is longer", "'input' is float32 [*, *, 8]",
       "correct WindowShape"},
      {"windows that do not add up",
       MakeAudioModel(
           {.metadata = {{"WindowShape", R"({"analysis": [1, 1], "synthesis": [1, 0.9]})"}}}),
       "", "The windows of WindowShape do not add up to 1", "off by up to 1", "synthesis window"},
      {"no JSON", MakeAudioModel({.metadata = {{"SampleRate", "16000 Hz"}}}), "",
       "the metadata value of SampleRate is not JSON", "SampleRate is 16000 Hz",
       "correct SampleRate"},
      {"fixed channels", MakeAudioModel({.inputShape = Dimensions{1, "T", 8}}), "--channels 2",
       "Number of input channels cannot be changed", "[1, *, 8]; asked for: 2 channels",
       "as many channels as"},
      {"fixed windows", MakeAudioModel({.inputShape = Dimensions{"C", 4, 8}}), "--sequence 3",
       "Input sequence size cannot be changed",
       "asked for: 3 windows; LookaheadNumBlocks is missing", "--sequence"},
      {"classes without names",
       MakeAudioModel({.classGains = {1, 1}, .outputShape = Dimensions{2, "C", "T", 8}}), "",
       "Incorrect number of extracted audio classes", "AudioClassNames is missing",
       "correct AudioClassNames"},
      {"no windows out", MakeAudioModel({.outputRank = 1}), "--channels 1",
       "The output has no sequence dimension", "4 windows", "--sequence 1"},
      {"other window out", MakeAudioModel({.outputFeatures = 6}), "",
       "The output's windows (Features) must not be shorter", "[1, *, *, 6]",
       "equal window lengths"},
      {"state without output",
       model(Element::Float)
           .Input("memory", Element::Float, {3})
           .Output("output", Element::Float, windows)
           .Node("Identity", {"input"}, {"output"})
           .Build(),
       "", "Model is not compatible with automatic buffer binding",
       "'memory' (float32) with nothing", "its output"},
      {"other names", MakeAudioModel({.inputName = "sound"}), "",
       "the audio of the model does not have the names", "'sound'", "rename"},
      {"fails when run", MakeAudioModel({.failsFromEvaluation = 0}), "",
       "the inference engine cannot run the model", "2 channels", "where the engine says"},
      {"huge", MakeAudioModel({.features = 1 << 20}), "--sequence 1000000 --channels 1000", "",
       "1000000 windows", "smaller sizes"},
  };
  const TemporaryFolder folder;
  for (const auto& row : rows) {
    WriteFile(folder / "model.onnx", row.model);
    const Outcome outcome = folder.Run(std::string("$TOOL check model.onnx ") + row.arguments);
    EXPECT_EQ(outcome.exitStatus, 1) << row.name << ": " << outcome.out << outcome.err;
    ExpectPart(outcome.out, std::string("refused: ") + row.reason, row.name);
    ExpectPart(outcome.out, row.found, row.name);
    const std::size_t change = std::min(outcome.out.find("change "), outcome.out.size());
    ExpectPart(outcome.out.substr(change), row.change, row.name);
  }
}

}  // namespace
}  // namespace TestSupport
