#pragma once

#include <memory>
#include <sndfile.h>
#include <string>

namespace Orvik::Tesmo::Tool {

/// One libsndfile handle over a file descriptor that the caller keeps open. Unlike the library's
/// own road over a descriptor, this one keeps the error of the system call that failed.
class SoundStream {
public:
  /// `mode` SFM_READ or SFM_WRITE; `info` as sf_open has it. On failure Handle is null.
  SoundStream(int fd, int mode, SF_INFO& info);

  SNDFILE* Handle() const { return handle.get(); }

  /// Writes what is still held back and ends the handle.
  void Close();

  /// errno of the first system call that failed; 0 for none.
  int SystemError() const { return io->error; }

  /// The system's words where it failed, otherwise libsndfile's.
  std::string ErrorText() const;

private:
  struct Io {
    int fd;
    int error = 0;
  };
  struct Closer {
    void operator()(SNDFILE* file) const { sf_close(file); }
  };
  static sf_count_t Noted(Io& io, sf_count_t result);
  template <class Step>
  static sf_count_t MoveAll(Io& io, sf_count_t count, Step step);
  static SF_VIRTUAL_IO Operations();

  std::unique_ptr<Io> io;  // libsndfile holds its address
  std::unique_ptr<SNDFILE, Closer> handle;
};

}  // namespace Orvik::Tesmo::Tool
