// The words by which models are declared, the windows that they name, and the families of known
// models, which are files of such words.

#include "adapt/adapt.h"
#include "command_line/errors.h"
#include "command_line/values.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <sstream>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr std::uint64_t mostWindow = 1 << 20;

template <class Value>
struct Word {
  std::string_view word;
  Value value;
};

constexpr std::array<Word<Feature::Kind>, 5> featureWords = {
    {{"samples", Feature::Kind::Samples},
     {"rows", Feature::Kind::Rows},
     {"spectrum", Feature::Kind::Spectrum},
     {"magnitude", Feature::Kind::Magnitude},
     {"power", Feature::Kind::Power}}};
constexpr std::array<Word<Result::Kind>, 6> resultWords = {
    {{"samples", Result::Kind::Samples},
     {"spectrum", Result::Kind::Spectrum},
     {"mask", Result::Kind::Mask},
     {"complex-mask", Result::Kind::ComplexMask},
     {"gate", Result::Kind::Gate},
     {"none", Result::Kind::None}}};
constexpr std::array<Word<Joining>, 3> joiningWords = {
    {{"windowed", Joining::Windowed}, {"added", Joining::Added}, {"finished", Joining::Finished}}};

/// A window function: its value at n + shift of N, a turn being N.
struct WindowRow {
  std::string_view name;
  double shift;
  double (*value)(double turn);
};
double Hann(double turn) {
  return 0.5 - 0.5 * std::cos(2 * std::numbers::pi * turn);
}
double Hamming(double turn) {
  return 0.54 - 0.46 * std::cos(2 * std::numbers::pi * turn);
}
constexpr std::array<WindowRow, 7> windows = {
    {{"root-hann", 0, [](double turn) { return std::sqrt(Hann(turn)); }},
     {"hann", 0, Hann},
     {"vorbis", 0.5,
      [](double turn) {
        const double sine = std::sin(std::numbers::pi * turn);
        return std::sin(std::numbers::pi / 2 * sine * sine);
      }},
     {"rectangular", 0, [](double) { return 1.0; }},
     {"sine", 0.5, [](double turn) { return std::sin(std::numbers::pi * turn); }},
     {"hamming", 0, Hamming},
     {"root-hamming", 0, [](double turn) { return std::sqrt(Hamming(turn)); }}}};

template <class Table>
auto Find(const Table& table, std::string_view text) {
  std::string all;
  for (const auto& row : table) {
    if (row.word == text) return row.value;
    all += (all.empty() ? "" : ", ") + std::string(row.word);
  }
  throw UsageError("'" + std::string(text) + "' is none of " + all);
}

template <class Table>
std::string WordOf(const Table& table, auto value) {
  for (const auto& row : table)
    if (row.value == value) return std::string(row.word);
  return "unknown";
}

bool IsNumber(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

std::vector<double> Numbers(std::string_view text) {
  std::vector<double> numbers;
  for (const std::string& one : SplitAt(text, ','))
    numbers.push_back(ParseNumber(one));
  return numbers;
}

std::int64_t ParseSigned(std::string_view text, std::uint64_t least) {
  return static_cast<std::int64_t>(ParseCount(text, least, mostWindow));
}

/// Operations on complex numbers, too.
bool WorksOnParts(FeatureStep::Kind kind) {
  using enum FeatureStep::Kind;
  return kind == Times || kind == Lowest || kind == RunningLevel || kind == RunningRoot;
}

/// KEEP, or KEEP and START, or KEEP and FIRST..LAST
void ParseRunning(const std::vector<std::string>& parts, FeatureStep& step) {
  step.keep = ParseNumber(parts[1]);
  if (step.keep < 0 || step.keep >= 1)
    throw UsageError("a running value keeps a share from 0 to below 1");
  if (parts.size() < 3) return;
  const std::size_t dots = parts[2].find("..");
  step.first = step.last = ParseNumber(std::string_view(parts[2]).substr(0, dots));
  if (dots != std::string::npos)
    step.last = ParseNumber(std::string_view(parts[2]).substr(dots + 2));
}

FeatureStep ParseStep(std::string_view text) {
  using enum FeatureStep::Kind;
  struct Row {
    std::string_view word;
    FeatureStep::Kind kind;
    std::size_t least, most;  ///< parts between colons
  };
  static constexpr std::array<Row, 8> rows = {{{"log", Log, 2, 2},
                                               {"times", Times, 2, 2},
                                               {"bands", Bands, 1, 1},
                                               {"lowest", Lowest, 2, 2},
                                               {"fixed", Fixed, 3, 3},
                                               {"running-mean", RunningMean, 2, 3},
                                               {"running-level", RunningLevel, 2, 3},
                                               {"running-root", RunningRoot, 2, 3}}};
  std::vector<std::string> parts = SplitAt(text, ':');
  const auto* const row = std::ranges::find(rows, parts[0], &Row::word);
  if (row == rows.end() || parts.size() < row->least || parts.size() > row->most)
    throw UsageError("'" + std::string(text) +
                     "' is none of log:FLOOR (the least value) or log:+FLOOR (added), times:X, "
                     "bands, lowest:N, fixed:MEAN:DEVIATION, running-mean:KEEP[:START[..LAST]], "
                     "running-level:..., running-root:...");
  FeatureStep step;
  step.kind = row->kind;
  if (step.kind == Log) {
    const bool isAdded = parts[1].starts_with('+');
    step.kind = isAdded ? LogOfSum : Log;
    step.floor = ParseNumber(std::string_view(parts[1]).substr(isAdded ? 1 : 0));
    if (step.floor <= 0) throw UsageError("the floor of a logarithm is above 0");
  } else if (step.kind == Times) {
    step.factor = ParseNumber(parts[1]);
  } else if (step.kind == Lowest) {
    step.count = ParseSigned(parts[1], 1);
  } else if (step.kind == Fixed) {
    step.mean = Numbers(parts[1]);
    step.deviation = Numbers(parts[2]);
    if (std::ranges::count(step.deviation, 0.0) > 0)
      throw UsageError("a deviation of 0 would be divided by");
  } else if (step.kind != Bands) {
    ParseRunning(parts, step);
  }
  return step;
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view spaces = " \t\r";
  const std::size_t first = text.find_first_not_of(spaces);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(spaces) - first + 1);
}

/// Seen from the program, installed as well as just built.
std::filesystem::path FamilyFolder() {
  auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
                "share" / "kalvrin" / "families";
  if (!std::filesystem::is_directory(folder))
    throw Refusal("the declarations of known families are not installed: there is no " +
                  folder.string());
  return folder;
}

Family ReadFamilyFile(const std::filesystem::path& path) {
  const ModelFile file = ReadModelFile(path.string());
  Family family;
  family.name = path.stem().string();
  std::istringstream lines(std::string(file.bytes.begin(), file.bytes.end()));
  for (std::string whole; std::getline(lines, whole);) {
    std::string_view line = whole;
    const std::size_t comment = line.find('#');
    if (comment != std::string_view::npos) {
      if (family.about.empty()) family.about = Trimmed(line.substr(comment + 1));
      line = line.substr(0, comment);
    }
    line = Trimmed(line);
    if (line.empty()) continue;
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    const std::string_view value = Trimmed(line.substr(end));
    family.options.emplace_back(line.substr(0, end), value);
  }
  return family;
}

}  // namespace

std::vector<std::string> SplitAt(std::string_view text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  for (const std::string& part : parts)
    if (part.empty()) throw UsageError("'" + std::string(text) + "' has an empty part");
  return parts;
}

double ParseNumber(std::string_view text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(number))
    throw UsageError("'" + std::string(text) + "' is no number");
  return number;
}

Feature ParseFeature(std::string_view text) {
  Feature feature;
  feature.text = text;
  const std::vector<std::string> words = SplitAt(text, '/');
  std::string kind = words[0];
  if (kind.starts_with("log-")) {
    const std::size_t colon = std::min(kind.find(':'), kind.size());
    feature.steps.push_back(ParseStep("log" + kind.substr(colon)));
    kind = kind.substr(4, colon - 4);
  }
  feature.kind = Find(featureWords, kind);
  for (std::size_t i = 1; i < words.size(); ++i)
    feature.steps.push_back(ParseStep(words[i]));
  if (!feature.steps.empty() && !IsSpectral(feature))
    throw UsageError("'" + kind + "' is taken as it is, without '" + words.back() + "'");
  for (const FeatureStep& step : feature.steps)
    if (feature.kind == Feature::Kind::Spectrum && !WorksOnParts(step.kind))
      throw UsageError("'" + std::string(text) +
                       "' is complex: only times, lowest, running-level "
                       "and running-root can follow");
  return feature;
}

Result ParseResult(std::string_view text) {
  Result result;
  result.text = text;
  const std::vector<std::string> words = SplitAt(text, '/');
  result.kind = Find(resultWords, words[0]);
  for (std::size_t i = 1; i < words.size(); ++i) {
    const std::vector<std::string> parts = SplitAt(words[i], ':');
    if (parts[0] == "bands" && words.size() == 2 && result.kind == Result::Kind::Mask) {
      result.isOfBands = true;
    } else if (parts[0] == "lowest" && parts.size() == 2 && IsMask(result)) {
      result.lowest = ParseSigned(parts[1], 1);
    } else if (parts[0] == "taps" && parts.size() <= 3 && parts.size() > 1 &&
               result.kind == Result::Kind::ComplexMask) {
      result.taps = ParseSigned(parts[1], 1);
      if (parts.size() == 3) result.ahead = ParseSigned(parts[2], 0);
      if (result.ahead >= result.taps)
        throw UsageError("'" + words[i] + "' looks further ahead than it has taps");
    } else {
      throw UsageError("'" + words[i] + "' does not follow '" + words[0] +
                       "': mask/bands, mask/lowest:N, complex-mask/lowest:N, "
                       "complex-mask/taps:N[:AHEAD] do");
    }
  }
  return result;
}

Joining ParseJoining(std::string_view text) {
  return Find(joiningWords, text);
}

FeatureStep ParseNormalisation(std::string_view text) {
  FeatureStep step = ParseStep(text);
  if (step.kind < FeatureStep::Kind::Fixed)
    throw UsageError("'" + std::string(text) +
                     "' is no rule: fixed, running-mean, running-level "
                     "and running-root are");
  return step;
}

void ParseWindow(std::string_view text, AdaptRequest& request) {
  const std::size_t colon = text.find(':');
  std::string_view name = text.substr(0, colon);
  std::string_view length = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  if (IsNumber(name) && length.empty()) std::swap(name, length);
  if (!name.empty()) {
    if (name == "none") name = "rectangular";
    std::string all;
    for (const WindowRow& row : windows)
      all += (all.empty() ? "" : ", ") + std::string(row.name);
    if (std::ranges::find(windows, name, &WindowRow::name) == windows.end())
      throw UsageError("'" + std::string(name) + "' is none of " + all);
    request.windowName = name;
  }
  if (length.empty()) return;
  request.window = ParseCount(length, 2, mostWindow);
  if (request.window % 2 != 0) throw UsageError("a window has an even number of samples");
}

std::string FeatureText(const Feature& feature) {
  return feature.text.empty() ? WordOf(featureWords, feature.kind) : feature.text;
}

std::string ResultText(const Result& result) {
  return result.text.empty() ? WordOf(resultWords, result.kind) : result.text;
}

bool IsSpectral(const Feature& feature) {
  return feature.kind != Feature::Kind::Samples && feature.kind != Feature::Kind::Rows;
}

bool IsSpectral(const Result& result) {
  return result.kind != Result::Kind::Samples && result.kind != Result::Kind::Gate;
}

bool IsMask(const Result& result) {
  return result.kind == Result::Kind::Mask || result.kind == Result::Kind::ComplexMask;
}

std::vector<double> MakeWindow(const std::string& name, std::size_t length, std::size_t transform) {
  const auto row = std::ranges::find(windows, name, &WindowRow::name);
  std::vector<double> result(transform);
  const std::size_t start = (transform - length) / 2;
  for (std::size_t n = 0; n < length; ++n)
    result[start + n] =
        row->value((static_cast<double>(n) + row->shift) / static_cast<double>(length));
  return result;
}

std::vector<double> SynthesisWindow(const std::vector<double>& analysis, std::size_t hop) {
  std::vector<double> sums(hop), result(analysis.size());
  for (std::size_t n = 0; n < analysis.size(); ++n)
    sums[n % hop] += analysis[n] * analysis[n];
  const double greatest = *std::ranges::max_element(sums);
  for (const double sum : sums)
    if (sum < 1e-6 * greatest)
      throw Refusal("windows under this window function at distances of " + std::to_string(hop) +
                    " samples leave gaps: change --window or --hop");
  for (std::size_t n = 0; n < analysis.size(); ++n)
    result[n] = analysis[n] / sums[n % hop];
  return result;
}

Family ReadFamily(const std::string& text) {
  std::error_code ignored;
  if (std::filesystem::is_regular_file(text, ignored)) return ReadFamilyFile(text);
  const auto families = InstalledFamilies();
  std::string all;
  for (const Family& family : families) {
    if (family.name == text) return family;
    all += (all.empty() ? "" : ", ") + family.name;
  }
  throw UsageError("'" + text + "' is neither a file nor one of " + all);
}

std::vector<Family> InstalledFamilies() {
  std::vector<Family> all;
  for (const auto& entry : std::filesystem::directory_iterator(FamilyFolder()))
    if (entry.path().extension() == ".txt") all.push_back(ReadFamilyFile(entry.path()));
  std::ranges::sort(all, {}, &Family::name);
  return all;
}

}  // namespace Orvik::Tesmo::Tool
