// Changes a model as a model: a line or a block of its text form, so that what comes out is read as
// one most of the time.

#include <google/protobuf/text_format.h>
#include <onnx/onnx_pb.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

constexpr const char* operators[] = {
    "Add",     "Cast",      "Concat",  "Conv",   "CumSum", "Div",       "Expand",    "Gather",
    "Gemm",    "GRU",       "If",      "Loop",   "LSTM",   "MatMul",    "Mod",       "OneHot",
    "Pad",     "Range",     "Reshape", "Resize", "Scan",   "ScatterND", "Slice",     "Split",
    "Squeeze", "ReduceMax", "Tanh",    "Tile",   "TopK",   "Transpose", "Unsqueeze", "Where"};
constexpr const char* numbers[] = {"0",
                                   "1",
                                   "2",
                                   "3",
                                   "4",
                                   "7",
                                   "8",
                                   "16",
                                   "-1",
                                   "-2",
                                   "1048576",
                                   "2147483647",
                                   "9223372036854775807",
                                   "-9223372036854775808"};

class Mutator {
public:
  Mutator(const std::string& text, unsigned seed) : random(seed) {
    std::istringstream stream(text);
    for (std::string line; std::getline(stream >> std::ws, line);)
      lines.push_back(line);
  }

  void Change() {
    if (lines.empty()) return;
    const std::size_t at = Any();
    const std::size_t colon = lines[at].find(": ");
    if (lines[at] == "}") return;
    if (random() % 8 == 0)
      lines.erase(lines.begin() + at, lines.begin() + End(at));
    else if (colon == std::string::npos)
      CopyBlock(at);
    else
      lines[at].replace(colon + 2, std::string::npos,
                        lines[at][colon + 2] == '"' ? AnyText() : AnyNumber());
  }

  std::string Text() const {
    std::string text;
    for (const std::string& line : lines)
      text += line + '\n';
    return text;
  }

private:
  std::size_t Any() { return random() % lines.size(); }
  template <class T, std::size_t N>
  const T& Pick(const T (&all)[N]) {
    return all[random() % N];
  }

  /// Behind the block that this line opens, or behind the line.
  std::size_t End(std::size_t at) const {
    int depth = 0;
    do {
      depth += lines[at].back() == '{' ? 1 : lines[at] == "}" ? -1 : 0;
      ++at;
    } while (depth > 0);
    return at;
  }

  /// An operator, or another text of the model, so that names meet; a byte put in now and then.
  std::string AnyText() {
    std::string text = std::string("\"") + Pick(operators) + '"';
    for (int tries = 0; tries < 20 && random() % 2 == 0; ++tries) {
      const std::string& line = lines[Any()];
      const std::size_t quote = line.find('"');
      if (quote != std::string::npos) text = line.substr(quote);
    }
    if (random() % 6 != 0) return text;
    const char digit = static_cast<char>('0' + random() % 8);
    return text.insert(1 + random() % (text.size() - 1), {'\\', '1', digit, digit});
  }

  std::string AnyNumber() {
    return random() % 4 != 0 ? Pick(numbers) : std::to_string(random() % 32);
  }

  /// Once more, or beside another of its kind.
  void CopyBlock(std::size_t at) {
    const std::vector<std::string> block(lines.begin() + at, lines.begin() + End(at));
    std::size_t place = at;
    for (int tries = 0; tries < 20 && place == at; ++tries)
      if (const std::size_t other = Any(); lines[other] == lines[at]) place = other;
    lines.insert(lines.begin() + place, block.begin(), block.end());
  }

  std::mt19937 random;
  std::vector<std::string> lines;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned seed) {
  using google::protobuf::TextFormat;
  onnx::ModelProto model;
  std::string text;
  if (seed % 8 == 0 || !model.ParseFromArray(data, static_cast<int>(size)) ||
      !TextFormat::PrintToString(model, &text))
    return LLVMFuzzerMutate(data, size, maxSize);
  Mutator mutator(text, seed);
  for (unsigned i = 0; i <= seed / 8 % 3; ++i)
    mutator.Change();
  TextFormat::Parser parser;
  parser.AllowPartialMessage(true);
  if (!parser.ParseFromString(mutator.Text(), &model)) return size;
  const std::string bytes = model.SerializePartialAsString();
  if (bytes.size() > maxSize) return size;
  bytes.copy(reinterpret_cast<char*>(data), bytes.size());
  return bytes.size();
}
