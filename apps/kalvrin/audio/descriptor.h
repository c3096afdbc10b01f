#pragma once

#include <cstddef>
#include <string>
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

}  // namespace Orvik::Tesmo::Tool
