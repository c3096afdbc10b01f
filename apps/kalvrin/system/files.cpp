#include "system/files.h"

#include "command_line/errors.h"
#include "system/process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

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

[[noreturn]] void RefuseToWrite(const std::string& name, int error) {
  throw Refusal("cannot write " + name + ": " + SystemErrorText(error));
}

/// A hidden name that no other process uses, nor one of another machine that shares the folder.
std::string PassingName() {
  char host[64] = {};
  gethostname(host, sizeof host - 1);
  return ".kalvrin-" + std::string(host) + '-' + std::to_string(getpid());
}

std::string FolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path();
  return folder.empty() ? "." : folder;
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd >= 0) close(fd);
}

std::string SystemErrorText(int error) {
  return std::generic_category().message(error);
}

long ReadFully(int fd, void* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t step = read(fd, static_cast<char*>(bytes) + done, size - done);
    if (step == 0) break;
    if (step > 0) {
      done += static_cast<std::size_t>(step);
    } else if (errno != EINTR) {
      return -1;
    } else {
      ThrowIfInterrupted();
    }
  }
  return static_cast<long>(done);
}

int WriteFully(int fd, const void* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t step = write(fd, static_cast<const char*>(bytes) + done, size - done);
    if (step >= 0) {
      done += static_cast<std::size_t>(step);
    } else if (errno != EINTR) {
      return errno;
    } else {
      ThrowIfInterrupted();
    }
  }
  return 0;
}

void CopyToEnd(int from, const std::string& fromName, int to, const std::string& toName) {
  std::vector<char> bytes(1 << 16);
  for (;;) {
    ThrowIfInterrupted();
    const long count = ReadFully(from, bytes.data(), bytes.size());
    if (count < 0) throw Refusal("cannot read " + fromName + ": " + SystemErrorText(errno));
    if (count == 0) return;
    if (const int error = WriteFully(to, bytes.data(), static_cast<std::size_t>(count)))
      throw Refusal("cannot write " + toName + ": " + SystemErrorText(error));
  }
}

Descriptor OpenScratchFile(const std::string& folder) {
  if (Descriptor unnamed(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666)); unnamed)
    return unnamed;
  // Some file systems cannot make a file without a name: make one and remove its name.
  std::string path = folder + "/.kalvrin-XXXXXX";
  Descriptor named(mkostemp(path.data(), O_CLOEXEC));
  if (named) unlink(path.c_str());
  return named;
}

std::string TemporaryFolder() {
  const char* folder = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): one thread
  return folder && *folder ? folder : "/tmp";
}

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
  // Standard input is copied even where it is a file: it need not be at its start.
  const bool direct = named && S_ISREG(status.st_mode);
  file = direct ? std::move(named) : Spool(from, name);
  lseek(file.Get(), 0, SEEK_SET);
}

OutputFile::OutputFile(const std::string& path) : name(path == "-" ? "standard output" : path) {
  Inspect(path);
  const std::string folder = target.empty() ? TemporaryFolder() : FolderOf(target);
  contents = OpenScratchFile(folder);
  if (!contents)
    throw Refusal("cannot write " + name + ": no file can be made in " + folder + " (" +
                  SystemErrorText(errno) + ")");
}

/// Finds out what `path` is now, which decides how Commit works.
void OutputFile::Inspect(const std::string& path) {
  toStandardOutput = path == "-";
  if (toStandardOutput) return;
  struct stat present {};
  if (stat(path.c_str(), &present) != 0) {
    if (errno != ENOENT) RefuseToWrite(name, errno);
    target = path;
    return;
  }
  if (S_ISDIR(present.st_mode)) RefuseToWrite(name, EISDIR);
  if (!S_ISREG(present.st_mode)) {
    stream = Descriptor(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!stream) RefuseToWrite(name, errno);
    return;
  }
  // A rename would replace a write-protected file, too.
  if (access(path.c_str(), W_OK) != 0) RefuseToWrite(name, errno);
  target = std::filesystem::canonical(path);
  keptMode = present.st_mode & 07777;
}

void OutputFile::Commit() {
  if (!target.empty()) return Publish();
  if (lseek(contents.Get(), 0, SEEK_SET) != 0) RefuseToWrite(name, errno);
  CopyToEnd(contents.Get(), name, toStandardOutput ? STDOUT_FILENO : stream.Get(), name);
}

void OutputFile::Publish() {
  // Some file systems report a full disk only now.
  if (fsync(contents.Get()) != 0 && errno != EINVAL) RefuseToWrite(name, errno);
  // linkat cannot replace a file, rename can: the file gets a name of its own first.
  const std::string passing = FolderOf(target) + '/' + PassingName();
  unlink(passing.c_str());
  if (!GiveName(passing)) CopyTo(passing);
  if (keptMode != 0) chmod(passing.c_str(), keptMode);
  if (std::rename(passing.c_str(), target.c_str()) != 0) {
    const int error = errno;
    unlink(passing.c_str());
    RefuseToWrite(name, error);
  }
}

/// Returns false where the file system cannot name a file that has none.
bool OutputFile::GiveName(const std::string& path) {
  const std::string self = "/proc/self/fd/" + std::to_string(contents.Get());
  return linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

void OutputFile::CopyTo(const std::string& path) {
  const Descriptor copy(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!copy) RefuseToWrite(name, errno);
  try {
    if (lseek(contents.Get(), 0, SEEK_SET) != 0) RefuseToWrite(name, errno);
    CopyToEnd(contents.Get(), name, copy.Get(), name);
    if (fsync(copy.Get()) != 0) RefuseToWrite(name, errno);
  } catch (...) {
    unlink(path.c_str());
    throw;
  }
}

}  // namespace Orvik::Tesmo::Tool
