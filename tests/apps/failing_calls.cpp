// Calls of the system that fail as planned.

#include "apps/failing_plan.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using TestSupport::IsChosen;
using TestSupport::IsShort;
using TestSupport::Kind;

// NOLINTBEGIN(bugprone-macro-parentheses): parameter lists bring their own
#define WRAP(result, name, parameters, arguments, failed)                                          \
  extern "C" [[gnu::visibility("default")]] result name parameters {                               \
    using Function = result(*) parameters;                                                         \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, Kind::Other, __builtin_return_address(0))) return failed;                  \
    return real arguments;                                                                         \
  }
#define WRAP_OPEN(name, parameters, arguments)                                                     \
  extern "C" [[gnu::visibility("default")]] int name parameters {                                  \
    std::va_list rest;                                                                             \
    va_start(rest, flags);                                                                         \
    const auto mode = va_arg(rest, mode_t);                                                        \
    va_end(rest);                                                                                  \
    using Function = int(*) parameters;                                                            \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, Kind::Other, __builtin_return_address(0))) return -1;                      \
    return real arguments;                                                                         \
  }
#define WRAP_TRANSFER(name, kind, bytes)                                                           \
  extern "C" [[gnu::visibility("default")]] ssize_t name(int fd, bytes* data, std::size_t size) {  \
    using Function = ssize_t (*)(int, bytes*, std::size_t);                                        \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, kind, __builtin_return_address(0))) {                                      \
      if (!IsShort()) return -1;                                                                   \
      size = (size + 1) / 2;                                                                       \
    }                                                                                              \
    return real(fd, data, size);                                                                   \
  }

WRAP_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
WRAP_OPEN(openat, (int folder, const char* path, int flags, ...), (folder, path, flags, mode))
WRAP_TRANSFER(read, Kind::Read, void)
WRAP_TRANSFER(write, Kind::Write, const void)
WRAP(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), -1)
WRAP(int, fstat, (int fd, struct stat* status), (fd, status), -1)
WRAP(int, stat, (const char* path, struct stat* status), (path, status), -1)
WRAP(int, access, (const char* path, int mode), (path, mode), -1)
WRAP(int, fsync, (int fd), (fd), -1)
WRAP(int, linkat, (int a, const char* from, int b, const char* to, int flags),
     (a, from, b, to, flags), -1)
WRAP(int, rename, (const char* from, const char* to), (from, to), -1)
WRAP(int, unlink, (const char* path), (path), -1)
WRAP(int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
WRAP(int, mkostemp, (char* pattern, int flags), (pattern, flags), -1)
WRAP(int, chmod, (const char* path, mode_t mode), (path, mode), -1)
WRAP(char*, realpath, (const char* path, char* resolved), (path, resolved), nullptr)
WRAP(pid_t, fork, (), (), -1)
WRAP(pid_t, waitpid, (pid_t child, int* status, int options), (child, status, options), -1)
WRAP(int, lstat, (const char* path, struct stat* status), (path, status), -1)
WRAP(ssize_t, readlink, (const char* path, char* to, std::size_t size), (path, to, size), -1)
WRAP(std::FILE*, fopen64, (const char* path, const char* mode), (path, mode), nullptr)
WRAP(DIR*, opendir, (const char* path), (path), nullptr)
WRAP(DIR*, fdopendir, (int fd), (fd), nullptr)
WRAP(dirent*, readdir, (DIR * folder), (folder), nullptr)
WRAP(int, unlinkat, (int folder, const char* path, int flags), (folder, path, flags), -1)
WRAP(int, remove, (const char* path), (path), -1)
WRAP(int, socketpair, (int a, int b, int c, int* lines), (a, b, c, lines), -1)
WRAP(ssize_t, send, (int line, const void* data, std::size_t size, int flags),
     (line, data, size, flags), -1)
WRAP(ssize_t, recv, (int line, void* data, std::size_t size, int flags), (line, data, size, flags),
     -1)
WRAP(int, poll, (pollfd * lines, nfds_t count, int milliseconds), (lines, count, milliseconds), -1)
// NOLINTEND(bugprone-macro-parentheses)
