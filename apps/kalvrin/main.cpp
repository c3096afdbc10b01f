// The command-line host: finds the subcommand, prints help, and turns every way of failing into one
// line on standard error and an exit status.

#include "command_line/command.h"
#include "command_line/errors.h"
#include "diagnosis/refusals.h"
#include "failure/exceptions.h"
#include "failure/result_code.h"
#include "system/process.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <new>
#include <string>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr const Command* commands[] = {&infoCommand,     &checkCommand, &renderCommand,
                                       &adaptCommand,    &benchCommand, &pluginCommand,
                                       &pipewireCommand, &planCommand};

void PrintOverview(std::ostream& out) {
  constexpr std::size_t column = 12;
  out << "kalvrin runs multichannel audio through a neural model.\n\nusage:\n";
  for (const Command* command : commands)
    out << "  kalvrin " << command->name << ' ' << UsageOf(*command) << '\n';
  out << "  kalvrin help [COMMAND]\n  kalvrin --version\n\ncommands:\n";
  for (const Command* command : commands)
    PrintRow(out, column, std::string(command->name), std::string(command->summary));
  PrintRow(out, column, "help", "this text, or all about one command");
  out << "\nA file name of - stands for standard input or output.\n"
         "Exit status: 0 all well, 1 the model or the audio is refused or something failed, 2 the\n"
         "command line is wrong.\n";
}

const Command& FindCommand(std::string_view name) {
  const auto found = std::ranges::find(commands, name, &Command::name);
  if (found == std::end(commands))
    throw UsageError("there is no command '" + std::string(name) + "'");
  return **found;
}

int Help(Arguments arguments) {
  if (arguments.size() > 1) throw UsageError("help takes one command");
  if (arguments.empty())
    PrintOverview(std::cout);
  else
    PrintHelp(std::cout, FindCommand(arguments.front()));
  return ExitStatus::Ok;
}

int Dispatch(Arguments arguments) {
  if (arguments.empty()) {
    PrintOverview(std::cerr);
    return ExitStatus::Usage;
  }
  const std::string_view name = arguments.front();
  const Arguments rest = arguments.subspan(1);
  if (name == "--version") {
    std::cout << "kalvrin " KALVRIN_VERSION "\n";
    return ExitStatus::Ok;
  }
  if (name == "--help" || name == "-h") return Help({});
  if (name == "help") return Help(rest);
  if (name.starts_with('-')) throw UsageError("there is no option " + std::string(name));
  return RunCommand(FindCommand(name), rest);
}

/// Printed text that cannot be written is a failure, too.
int FlushResults(int status) {
  errno = 0;
  if (std::cout.flush()) return status;
  throw Refusal("cannot write standard output: " +
                std::string(std::strerror(errno)));  // NOLINT(concurrency-mt-unsafe): one thread
}

void PrintFailure(std::string_view text) {
  std::cerr << "kalvrin: " << text << '\n';
}

std::string UsageHint(Arguments arguments) {
  for (const Command* command : commands)
    if (!arguments.empty() && command->name == arguments.front())
      return "'kalvrin help " + std::string(command->name) + "' explains it";
  return "'kalvrin help' lists what there is";
}

int RunAndExplain(Arguments arguments) {
  try {
    return FlushResults(Dispatch(arguments));
  } catch (const UsageError& error) {
    PrintFailure(std::string(error.what()) + "; " + UsageHint(arguments));
    return ExitStatus::Usage;
  } catch (const Interrupted& interrupted) {
    EndBySignal(interrupted.signal);
  } catch (...) {
    PrintFailure(TextOfCurrentException());
    return ExitStatus::Refused;
  }
}

int Run(Arguments arguments) {
  try {
    return RunAndExplain(arguments);
  } catch (const std::bad_alloc&) {
    // There was not enough memory for the message either.
    PrintFailure("there is not enough memory");
    return ExitStatus::Refused;
  }
}

}  // namespace
}  // namespace Orvik::Tesmo::Tool

int main(int count, char** values) {
  using namespace Orvik::Tesmo::Tool;
  CatchSignals();
  return Run(Arguments(values, static_cast<std::size_t>(count)).subspan(1));
}
