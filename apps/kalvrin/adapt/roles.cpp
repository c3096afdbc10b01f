#include "adapt/roles.h"

#include "command_line/errors.h"

#include <algorithm>

namespace Orvik::Tesmo::Tool {
namespace {

std::string Names(const std::vector<SourceTensor>& tensors) {
  std::string text;
  for (const SourceTensor& tensor : tensors)
    text += (text.empty() ? "" : ", ") + SourceTensorText(tensor);
  return text.empty() ? "nothing" : text;
}

std::vector<SourceTensor> Named(const std::vector<SourceTensor>& tensors,
                                const std::vector<std::string>& names, const char* side) {
  std::vector<SourceTensor> result;
  for (const std::string& name : names) {
    const auto place = std::ranges::find(tensors, name, &SourceTensor::name);
    if (place == tensors.end())
      throw Refusal("the model has no " + std::string(side) + " '" + name + "', it has " +
                    Names(tensors));
    result.push_back(*place);
  }
  return result;
}

std::vector<SourceTensor> Without(const std::vector<SourceTensor>& tensors,
                                  const std::vector<SourceTensor>& taken) {
  std::vector<SourceTensor> rest;
  for (const SourceTensor& tensor : tensors)
    if (std::ranges::find(taken, tensor.name, &SourceTensor::name) == taken.end())
      rest.push_back(tensor);
  return rest;
}

/// States may have the shape of a spectrum. Those that pair up by name go, unless nothing is left.
std::vector<SourceTensor> WithoutStates(const std::vector<SourceTensor>& candidates,
                                        const SourceModel& source, const AdaptRequest& request,
                                        bool areInputs) {
  std::vector<SourceTensor> rest, unnamed;
  for (const SourceTensor& tensor : candidates) {
    const bool isNamedState = std::ranges::any_of(request.states, [&](const auto& pair) {
      return (areInputs ? pair.first : pair.second) == tensor.name;
    });
    if (isNamedState) continue;
    unnamed.push_back(tensor);
    const auto& others = areInputs ? source.outputs : source.inputs;
    if (std::ranges::none_of(others, [&](const SourceTensor& other) {
          return areInputs ? NamesPair(tensor.name, other.name)
                           : NamesPair(other.name, tensor.name);
        }))
      rest.push_back(tensor);
  }
  return rest.empty() ? unnamed : rest;
}

/// The real part first, where the names tell.
void OrderParts(std::vector<SourceTensor>& parts) {
  const auto isImaginary = [](const SourceTensor& tensor) {
    return tensor.name.find("im") != std::string::npos &&
           tensor.name.find("re") == std::string::npos;
  };
  if (parts.size() == 2 && isImaginary(parts[0]) && !isImaginary(parts[1]))
    std::swap(parts[0], parts[1]);
}

std::int64_t BinsOf(const SourceTensor& tensor, const Layout& layout, std::int64_t bins) {
  const std::int64_t size = tensor.shape[layout.find('F')].size;
  if (size == 0 && bins == 0)
    throw Refusal("the number of bins of " + SourceTensorText(tensor) +
                  " is free; say --window, the samples of a window");
  return size == 0 ? bins : size;
}

bool SameLayout(const SourceTensor& a, const SourceTensor& b) {
  return std::ranges::equal(a.shape, b.shape, {}, &SourceDimension::size, &SourceDimension::size);
}

void DecideInputs(Roles& roles, const SourceModel& source, const AdaptRequest& request) {
  const auto bins = static_cast<std::int64_t>(request.window == 0 ? 0 : request.window / 2 + 1);
  const auto guess = [&](const SourceTensor& tensor) { return GuessInputLayout(tensor, bins); };
  roles.inputs = Named(source.inputs, request.inputs, "input");
  if (roles.inputs.empty()) {
    std::vector<SourceTensor> candidates;
    std::ranges::copy_if(source.inputs, std::back_inserter(candidates),
                         [&](const SourceTensor& tensor) { return guess(tensor).has_value(); });
    candidates = WithoutStates(candidates, source, request, true);
    const bool areParts = candidates.size() == 2 && SameLayout(candidates[0], candidates[1]) &&
                          !Has(*guess(candidates[0]), 'C');
    if (candidates.empty())
      throw Refusal("no input carries one window of a spectrum" +
                    (bins > 0 ? " of " + std::to_string(bins) + " bins" : std::string()) +
                    " (bins, real and imaginary part, nothing else above 1). The model has " +
                    Names(source.inputs) + ". Name it with --input, or say its --input-layout");
    if (candidates.size() > 1 && !areParts)
      throw Refusal("audio could come in by " + Names(candidates) +
                    "; say which with --input NAME, or --input REAL,IMAGINARY");
    roles.inputs = candidates;
    OrderParts(roles.inputs);
  }
  const SourceTensor& first = roles.inputs[0];
  if (!request.inputLayout.empty()) {
    CheckLayout(
        request.inputLayout, "NTFC1", first,
        bins > 0 ? bins
        : request.inputLayout.size() == first.shape.size()
            ? first.shape[std::min(request.inputLayout.find('F'), first.shape.size() - 1)].size
            : 0);
    roles.inputLayout = request.inputLayout;
  } else if (const auto layout = guess(first)) {
    roles.inputLayout = *layout;
  } else {
    throw Refusal("the dimensions of " + SourceTensorText(first) +
                  " cannot be told apart; say them with --input-layout");
  }
  const std::size_t expected = Has(roles.inputLayout, 'C') ? 1 : 2;
  if (roles.inputs.size() != expected || !SameLayout(roles.inputs.front(), roles.inputs.back()))
    throw Refusal(expected == 1
                      ? "audio comes in by one tensor, of real and imaginary part together"
                      : "the input " + SourceTensorText(first) +
                            " has no real and imaginary part, and no second tensor like it "
                            "has the other. Models on samples or magnitudes cannot be adapted");
  roles.bins = BinsOf(first, roles.inputLayout, bins);
}

void DecideOutputs(Roles& roles, const SourceModel& source, const AdaptRequest& request) {
  const bool hasParts =
      request.outputLayout.empty() ? Has(roles.inputLayout, 'C') : Has(request.outputLayout, 'C');
  const auto guess = [&](const SourceTensor& tensor) {
    // the parts may stand together on one side and apart on the other
    const auto together = GuessOutputLayout(tensor, roles.bins, hasParts);
    return together || !request.outputLayout.empty()
               ? together
               : GuessOutputLayout(tensor, roles.bins, !hasParts);
  };
  roles.outputs = Named(source.outputs, request.outputs, "output");
  if (roles.outputs.empty()) {
    std::vector<SourceTensor> candidates;
    std::ranges::copy_if(source.outputs, std::back_inserter(candidates),
                         [&](const SourceTensor& tensor) { return guess(tensor).has_value(); });
    candidates = WithoutStates(candidates, source, request, false);
    std::erase_if(candidates, [&](const SourceTensor& tensor) {
      return !SameLayout(tensor, candidates.front());
    });
    roles.outputs = candidates;
    OrderParts(roles.outputs);
  }
  if (roles.outputs.empty())
    throw Refusal("no output carries a window of a spectrum of " + std::to_string(roles.bins) +
                  " bins like the input's. The model has " + Names(source.outputs) +
                  ". Name it with --output, or say its --output-layout");
  const SourceTensor& first = roles.outputs[0];
  if (!request.outputLayout.empty()) {
    CheckLayout(request.outputLayout, "KNTFC1", first, roles.bins);
    roles.outputLayout = request.outputLayout;
  } else if (const auto layout = guess(first)) {
    roles.outputLayout = *layout;
  } else {
    throw Refusal("the dimensions of " + SourceTensorText(first) +
                  " cannot be told apart; say them with --output-layout");
  }
  for (const SourceTensor& output : roles.outputs)
    if (!SameLayout(output, first))
      throw Refusal("the outputs " + SourceTensorText(first) + " and " + SourceTensorText(output) +
                    " differ; name those with audio with --output");
  const std::size_t parts = Has(roles.outputLayout, 'C') ? 1 : 2;
  const std::size_t classAxis = roles.outputLayout.find('K');
  if (roles.outputs.size() % parts != 0 ||
      (classAxis != Layout::npos && roles.outputs.size() != parts))
    throw Refusal(
        "the outputs " + Names(roles.outputs) +
        " are no pairs of real and imaginary part, or have classes twice; name those with "
        "audio with --output");
  roles.classCount = classAxis == Layout::npos
                         ? static_cast<std::int64_t>(roles.outputs.size() / parts)
                         : first.shape[classAxis].size;
}

void CheckWindow(const Roles& roles, const AdaptRequest& request) {
  const auto window = static_cast<std::uint64_t>(roles.Window());
  if (request.window != 0 && request.window != window)
    throw Refusal("the model has " + std::to_string(roles.bins) + " bins, of windows of " +
                  std::to_string(window) + " samples; --window says " +
                  std::to_string(request.window));
  if (request.hop != 0 && 2 * request.hop != window)
    throw Refusal("the model moves on by " + std::to_string(request.hop) + " samples a window of " +
                  std::to_string(window) +
                  "; the library always moves on by half a window. Train it "
                  "for a hop of " +
                  std::to_string(window / 2));
}

}  // namespace

Roles DecideRoles(const SourceModel& source, const AdaptRequest& request) {
  Roles roles;
  DecideInputs(roles, source, request);
  CheckWindow(roles, request);
  DecideOutputs(roles, source, request);
  if (!request.classes.empty() &&
      request.classes.size() != static_cast<std::size_t>(roles.classCount))
    throw Refusal("the model gives " + std::to_string(roles.classCount) +
                  (roles.classCount == 1 ? " class" : " classes") + ", --classes names " +
                  std::to_string(request.classes.size()));
  roles.states = PairStates(Without(source.inputs, roles.inputs),
                            Without(source.outputs, roles.outputs), request.states);
  return roles;
}

}  // namespace Orvik::Tesmo::Tool
