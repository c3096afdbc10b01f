#include "audio/input_file.h"

#include "command_line/errors.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

Descriptor Spool(int from, const std::string& name) {
  const std::string folder = TemporaryFolder();
  Descriptor whole = OpenScratchFile(folder);
  if (!whole)
    throw Refusal("cannot keep " + name + " in " + folder + ": " + SystemErrorText(errno) +
                  "; TMPDIR can name another folder");
  CopyToEnd(from, name, whole.Get(), folder + " (TMPDIR can name another folder)");
  return whole;
}

}  // namespace

InputFile::InputFile(const std::string& path) : name(path == "-" ? "standard input" : path) {
  Descriptor named;
  if (path != "-") {
    named = Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!named) throw Refusal("cannot read " + name + ": " + SystemErrorText(errno));
  }
  const int from = named ? named.Get() : STDIN_FILENO;
  struct stat status {};
  if (fstat(from, &status) != 0)
    throw Refusal("cannot read " + name + ": " + SystemErrorText(errno));
  if (S_ISDIR(status.st_mode))
    throw Refusal("cannot read " + name + ": " + SystemErrorText(EISDIR));
  // Standard input is read from where it stands, which need not be its start.
  const bool direct = named && S_ISREG(status.st_mode);
  file = direct ? std::move(named) : Spool(from, name);
  lseek(file.Get(), 0, SEEK_SET);
}

}  // namespace Orvik::Tesmo::Tool
