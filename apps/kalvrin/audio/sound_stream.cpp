#include "audio/sound_stream.h"

#include "audio/descriptor.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {

SF_VIRTUAL_IO SoundStream::Operations() {
  SF_VIRTUAL_IO operations{};
  operations.get_filelen = [](void* data) -> sf_count_t {
    struct stat status {};
    return fstat(static_cast<Io*>(data)->fd, &status) == 0 ? status.st_size : -1;
  };
  operations.seek = [](sf_count_t offset, int whence, void* data) -> sf_count_t {
    return lseek(static_cast<Io*>(data)->fd, offset, whence);
  };
  operations.tell = [](void* data) -> sf_count_t {
    return lseek(static_cast<Io*>(data)->fd, 0, SEEK_CUR);
  };
  operations.read = [](void* bytes, sf_count_t count, void* data) -> sf_count_t {
    auto& source = *static_cast<Io*>(data);
    const ssize_t done = read(source.fd, bytes, static_cast<std::size_t>(count));
    if (done < 0 && source.error == 0) source.error = errno;
    return done < 0 ? 0 : done;
  };
  operations.write = [](const void* bytes, sf_count_t count, void* data) -> sf_count_t {
    auto& sink = *static_cast<Io*>(data);
    const auto* rest = static_cast<const char*>(bytes);
    sf_count_t done = 0;
    while (done < count) {
      const ssize_t step = write(sink.fd, rest + done, static_cast<std::size_t>(count - done));
      if (step < 0 && errno == EINTR) continue;
      if (step < 0 && sink.error == 0) sink.error = errno;
      if (step < 0) break;
      done += step;
    }
    return done;
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
