#pragma once

// Files in and out, by descriptors of the system.

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <utility>

namespace Orvik::Tesmo::Tool {

/// Owns one file descriptor; -1 is none.
class Descriptor {
public:
  Descriptor() = default;
  explicit Descriptor(int owned) : fd(owned) {}
  Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~Descriptor();

  int Get() const { return fd; }
  explicit operator bool() const { return fd >= 0; }

private:
  int fd = -1;
};

/// "No such file or directory" and its kin, for the present errno.
std::string SystemErrorText(int error);

/// Copies from where `from` stands to its end. `fromName` and `toName` serve the texts of a
/// Refusal.
void CopyToEnd(int from, const std::string& fromName, int to, const std::string& toName);

/// Bytes read, less than `size` at the end of the file only; -1 with errno set.
long ReadFully(int fd, void* bytes, std::size_t size);
/// 0, or the errno of the write that failed.
int WriteFully(int fd, const void* bytes, std::size_t size);

/// A file without a name in `folder`, for reading and writing; it goes when it is closed, however
/// the process ends. None, with errno set, where no file can be made.
Descriptor OpenScratchFile(const std::string& folder);

/// The folder for passing data: TMPDIR, else /tmp.
std::string TemporaryFolder();

/// A file open for reading and seeking. "-" (standard input) and pipes are read to their end first,
/// into a file without a name.
class InputFile {
public:
  /// Refusal where it cannot be read.
  explicit InputFile(const std::string& path);

  int Get() const { return file.Get(); }
  const std::string& Name() const { return name; }

private:
  std::string name;
  Descriptor file;
};

/// A file that appears under its name whole, at Commit, or not at all: until then it has no name,
/// so that nothing is left behind however the process ends. A present file of that name is replaced
/// at Commit, in one step; a symbolic link is followed.
///
/// "-" (standard output), devices and pipes get everything at Commit.
class OutputFile {
public:
  /// Refusal where the file cannot be made.
  explicit OutputFile(const std::string& path);

  /// For reading, writing and seeking.
  int Get() const { return contents.Get(); }

  /// What messages call it.
  const std::string& Name() const { return name; }

  /// Refusal where it cannot be finished; then there is no new file under the name.
  void Commit();

private:
  void Inspect(const std::string& path);
  void Publish();
  bool GiveName(const std::string& path);
  void CopyTo(const std::string& path);

  std::string name;
  std::string target;  // the path to appear under; empty when `stream` is written to
  Descriptor stream;   // a device or a pipe
  bool toStandardOutput = false;
  mode_t keptMode = 0;  // of the file to be replaced; 0 for none
  Descriptor contents;
};

}  // namespace Orvik::Tesmo::Tool
