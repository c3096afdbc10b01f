#pragma once

// Files to read and to write.

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

/// "No such file or directory" for ENOENT, and so on.
std::string SystemErrorText(int error);

/// Copies the rest of `from` to `to`. Throws Refusal, whose text has `fromName` or `toName`.
void CopyToEnd(int from, const std::string& fromName, int to, const std::string& toName);

/// Returns the number of bytes read, less than `size` only at the end of the file, or -1 with errno
/// set.
long ReadFully(int fd, void* bytes, std::size_t size);
/// Returns 0, or the errno of the write that failed.
int WriteFully(int fd, const void* bytes, std::size_t size);

/// Makes a file without a name in `folder`, for reading and writing. It is gone when it is closed,
/// however the process ends. Returns an empty Descriptor, with errno set, where it cannot be made.
Descriptor OpenScratchFile(const std::string& folder);

/// The folder for temporary files: TMPDIR, else /tmp.
std::string TemporaryFolder();

/// A file open for reading and seeking. "-" (standard input) and pipes are first copied into a file
/// without a name.
class InputFile {
public:
  /// Throws Refusal where it cannot be read.
  explicit InputFile(const std::string& path);

  int Get() const { return file.Get(); }
  const std::string& Name() const { return name; }

private:
  std::string name;
  Descriptor file;
};

/// A file that gets its name at Commit, whole. Until then it has none, so that nothing is left
/// behind however the process ends. Commit replaces a file of that name in one step and follows a
/// symbolic link.
///
/// "-" (standard output), devices and pipes get everything at Commit.
class OutputFile {
public:
  /// Throws Refusal where the file cannot be made.
  explicit OutputFile(const std::string& path);

  /// For reading, writing and seeking.
  int Get() const { return contents.Get(); }

  /// The name for messages.
  const std::string& Name() const { return name; }

  /// Throws Refusal where it cannot be completed; then the name has no new file.
  void Commit();

private:
  void Inspect(const std::string& path);
  void Publish();
  bool GiveName(const std::string& path);
  void CopyTo(const std::string& path);

  std::string name;
  std::string target;  // the path to get; empty for a device, a pipe or standard output
  Descriptor stream;   // a device or a pipe
  bool toStandardOutput = false;
  mode_t keptMode = 0;  // of the file to be replaced; 0 for none
  Descriptor contents;
};

}  // namespace Orvik::Tesmo::Tool
