#include "runtime/window_shape.h"

#include "failure/exceptions.h"
#include "runtime/metadata.h"
#include "runtime/metadata_json.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <string_view>

namespace Orvik::Tesmo::Dnn {

namespace {

using Type = MetadataJson::Type;

/// Limits beyond which a declared window is taken for a mistake.
constexpr double SmallestSumOfSquares = 1e-6;
constexpr double LargestError = 1e-5;

double SineSquared(double turn) {
  const double sine = std::sin(std::numbers::pi * turn);
  return sine * sine;
}

/// A named window of N samples at sample i.
struct Curve {
  std::string_view name;
  double (*at)(double i, double N);
};
constexpr Curve curves[] = {
    {"root-hann", [](double i, double N) { return std::sin(std::numbers::pi * i / N); }},
    {"hann", [](double i, double N) { return SineSquared(i / N); }},
    {"vorbis",
     [](double i, double N) {
       return std::sin(std::numbers::pi / 2 * SineSquared((i + 0.5) / N));
     }},
    {"rectangular", [](double, double) { return 1.0; }},
};

void RequireForm(bool condition) {
  if (!condition) throw ContractException(RefusalReason::WindowShapeForm);
}

bool IsNumber(const MetadataJson& value) {
  return (value.type == Type::Unsigned || value.type == Type::Integer ||
          value.type == Type::Real) &&
         std::abs(value.real) <= std::numeric_limits<float>::max();
}

std::string ReadName(const MetadataJson& value) {
  RequireForm(value.type == Type::Text &&
              std::ranges::count(curves, value.text, &Curve::name) != 0);
  return value.text;
}

std::vector<double> ReadNumbers(const MetadataJson& value) {
  RequireForm(value.type == Type::Array && !value.items.empty() &&
              std::ranges::all_of(value.items, IsNumber));
  std::vector<double> numbers(value.items.size());
  std::ranges::transform(value.items, numbers.begin(), &MetadataJson::real);
  return numbers;
}

/// The members of an object, each at most once and no others.
WindowShape ReadMembers(const MetadataJson& object) {
  RequireForm(object.type == Type::Object);
  WindowShape shape;
  for (const MetadataJson& member : object.items) {
    if (member.name == "shape" && shape.name.empty()) {
      shape.name = ReadName(member);
    } else if (member.name == "length" && shape.length == 0) {
      RequireForm(member.type == Type::Unsigned && member.number != 0);
      shape.length = member.number;
    } else if (member.name == "analysis" && shape.analysis.empty()) {
      shape.analysis = ReadNumbers(member);
    } else if (member.name == "synthesis" && shape.synthesis.empty()) {
      shape.synthesis = ReadNumbers(member);
    } else {
      RequireForm(false);
    }
  }
  if (!shape.name.empty()) {
    RequireForm(shape.analysis.empty() && shape.synthesis.empty());
    return shape;
  }
  RequireForm(!shape.analysis.empty() && shape.length == 0 &&
              (shape.synthesis.empty() || shape.synthesis.size() == shape.analysis.size()));
  shape.length = shape.analysis.size();
  return shape;
}

/// `numbers` in the middle of W samples, with zeros around them. Of an odd number of zeros the
/// larger half comes last.
std::vector<float> Centred(const std::vector<double>& numbers, std::size_t windowLength) {
  std::vector<float> window(windowLength);
  const std::size_t from = (windowLength - numbers.size()) / 2;
  for (std::size_t i = 0; i < numbers.size(); ++i)
    window[from + i] = static_cast<float>(numbers[i]);
  return window;
}

std::vector<double> NamedWindow(std::string_view name, std::size_t length) {
  const auto* const curve = std::ranges::find(curves, name, &Curve::name);
  std::vector<double> numbers(length);
  for (std::size_t i = 0; i < length; ++i)
    numbers[i] = curve->at(static_cast<double>(i), static_cast<double>(length));
  return numbers;
}

std::vector<float> LeastSquaresSynthesis(const std::vector<float>& analysis) {
  const std::size_t W = analysis.size(), H = W / 2;
  std::vector<double> squares(H);
  for (std::size_t n = 0; n < W; ++n)
    squares[n % H] += double{analysis[n]} * analysis[n];
  const double least = SmallestSumOfSquares * *std::ranges::max_element(squares);
  std::vector<float> synthesis(W);
  for (std::size_t n = 0; n < W; ++n)
    if (squares[n % H] > least) synthesis[n] = static_cast<float>(analysis[n] / squares[n % H]);
  return synthesis;
}

/// The largest |w(n) v(n) + w(n + H) v(n + H) - 1|; infinity where one is not finite.
double ErrorOf(const WindowPair& pair) {
  const std::size_t H = pair.analysis.size() / 2;
  double largest = 0;
  for (std::size_t n = 0; n < H; ++n) {
    const double sum = double{pair.analysis[n]} * pair.synthesis[n] +
                       double{pair.analysis[n + H]} * pair.synthesis[n + H];
    if (!std::isfinite(sum)) return std::numeric_limits<double>::infinity();
    largest = std::max(largest, std::abs(sum - 1));
  }
  return largest;
}

}  // namespace

std::optional<WindowShape> ReadWindowShape(const Platform::Model& model) {
  const auto json = ReadMetadataJson(model, u"WindowShape");
  if (!json) return std::nullopt;
  if (json->type != Type::Text) return ReadMembers(*json);
  WindowShape shape;
  shape.name = ReadName(*json);
  return shape;
}

WindowPair MakeWindowPair(const std::optional<WindowShape>& shape, std::uint32_t windowLength) {
  if (!shape) return {};
  if (shape->length > windowLength) throw ContractException(RefusalReason::WindowIsTooLong);
  const std::size_t length = shape->length != 0 ? shape->length : windowLength;
  WindowPair pair;
  pair.analysis = Centred(shape->name.empty() ? shape->analysis : NamedWindow(shape->name, length),
                          windowLength);
  pair.synthesis = shape->synthesis.empty() ? LeastSquaresSynthesis(pair.analysis)
                                            : Centred(shape->synthesis, windowLength);
  if (const double error = ErrorOf(pair); error > LargestError)
    throw ContractException(RefusalReason::WindowsDoNotAddUp, error);
  return pair;
}

}  // namespace Orvik::Tesmo::Dnn
