#include "audio/descriptor.h"

#include "command_line/errors.h"
#include "command_line/interrupt.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace Orvik::Tesmo::Tool {

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
  // Some file systems know no unnamed files: a named one loses its name at once.
  std::string path = folder + "/.kalvrin-XXXXXX";
  Descriptor named(mkostemp(path.data(), O_CLOEXEC));
  if (named) unlink(path.c_str());
  return named;
}

std::string TemporaryFolder() {
  const char* folder = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): one thread
  return folder && *folder ? folder : "/tmp";
}

}  // namespace Orvik::Tesmo::Tool
