#include "audio/sound_stream.h"

#include "audio/descriptor.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {

/// `result` of a system call, its error kept for SystemError: libsndfile passes over some. A place
/// that no file has (EINVAL) is what a damaged file asks for, and no failure of the system.
sf_count_t SoundStream::Noted(Io& io, sf_count_t result) {
  if (result < 0 && io.error == 0 && errno != EINVAL) io.error = errno;
  return result;
}

/// Repeats `step` until all `count` bytes have moved, or no more do; how many have.
template <class Step>
sf_count_t SoundStream::MoveAll(Io& io, sf_count_t count, Step step) {
  sf_count_t done = 0;
  while (done < count) {
    const ssize_t moved = step(io.fd, done, static_cast<std::size_t>(count - done));
    if (moved < 0 && errno == EINTR) continue;
    if (Noted(io, moved) <= 0) break;
    done += moved;
  }
  return done;
}

SF_VIRTUAL_IO SoundStream::Operations() {
  SF_VIRTUAL_IO operations{};
  operations.get_filelen = [](void* data) -> sf_count_t {
    auto& io = *static_cast<Io*>(data);
    struct stat status {};
    return Noted(io, fstat(io.fd, &status)) == 0 ? status.st_size : -1;
  };
  operations.seek = [](sf_count_t offset, int whence, void* data) -> sf_count_t {
    auto& io = *static_cast<Io*>(data);
    return Noted(io, lseek(io.fd, offset, whence));
  };
  operations.tell = [](void* data) -> sf_count_t {
    auto& io = *static_cast<Io*>(data);
    return Noted(io, lseek(io.fd, 0, SEEK_CUR));
  };
  // libsndfile takes what is short for the end of the file, or of the disk.
  operations.read = [](void* bytes, sf_count_t count, void* data) -> sf_count_t {
    auto* const rest = static_cast<char*>(bytes);
    return MoveAll(*static_cast<Io*>(data), count, [&](int fd, sf_count_t done, std::size_t size) {
      return read(fd, rest + done, size);
    });
  };
  operations.write = [](const void* bytes, sf_count_t count, void* data) -> sf_count_t {
    const auto* const rest = static_cast<const char*>(bytes);
    return MoveAll(*static_cast<Io*>(data), count, [&](int fd, sf_count_t done, std::size_t size) {
      return write(fd, rest + done, size);
    });
  };
  return operations;
}

SoundStream::SoundStream(int fd, int mode, SF_INFO& info) : io(new Io{fd}) {
  SF_VIRTUAL_IO operations = Operations();
  handle.reset(sf_open_virtual(&operations, mode, &info, io.get()));
}

void SoundStream::Close() {
  handle.reset();
}

std::string SoundStream::ErrorText() const {
  std::string text = io->error != 0 ? SystemErrorText(io->error) : sf_strerror(handle.get());
  while (text.ends_with('.') || text.ends_with(' '))
    text.pop_back();
  return text;
}

}  // namespace Orvik::Tesmo::Tool
