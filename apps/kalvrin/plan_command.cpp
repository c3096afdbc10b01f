#include "command_line/command.h"
#include "command_line/values.h"
#include "diagnosis/report.h"
#include "kernels/dft/describe.h"
#include "stream/set_up.h"

#include <iostream>

namespace Orvik::Tesmo::Tool {
namespace {

/// "5 3 16", with " | " where one run ends and the next begins.
std::string RadicesText(const std::vector<std::vector<int>>& runs) {
  std::string text;
  for (const auto& run : runs) {
    if (!text.empty()) text += " | ";
    for (std::size_t i = 0; i < run.size(); ++i)
      text += (i == 0 ? "" : " ") + std::to_string(run[i]);
  }
  return text;
}

int Plan(const std::string& text) {
  const auto length = static_cast<int>(ParseCount(text, 1, 1 << 29));
  SelectKernelBuild();
  const auto plan = Kernels::DescribeTransform(length);
  if (!plan) throw Refusal("no transform of " + text + " samples can be planned");

  std::cout << "Real transform of " << Counted(static_cast<std::uint64_t>(length), "sample")
            << '\n';
  PrintField(std::cout, "kernels", plan->build);
  PrintField(std::cout, "method", plan->method);
  if (plan->convLength > 0)
    PrintField(std::cout, "through",
               Counted(static_cast<std::uint64_t>(plan->convLength), "complex value"));
  PrintField(std::cout, "points",
             Counted(static_cast<std::uint64_t>(plan->points),
                     length % 2 == 0 ? "complex value" : "real sample"));
  PrintField(std::cout, "radices", RadicesText(plan->runs));
  PrintField(std::cout, "work", Counted(static_cast<std::uint64_t>(plan->workSize), "byte"));
  return ExitStatus::Ok;
}

std::function<int()> Declare(CLI::App& line) {
  const auto length = std::make_shared<std::string>();
  AddOperand(line, "LENGTH", *length);
  return [length] { return Plan(*length); };
}

}  // namespace

constinit const Command planCommand = {
    "plan",
    "print how a window of LENGTH samples is transformed, to choose one by",
    "The plan is that of the kernels which this processor runs. Radices stand in the order in "
    "which\n"
    "they run, with | between the runs over blocks; of a convolution, those of its inner\n"
    "transforms. Powers of two and multiples of 16 with small factors are fast; lengths with a\n"
    "prime factor above 50 go through a convolution of more than twice their size.\n",
    Declare,
};

}  // namespace Orvik::Tesmo::Tool
