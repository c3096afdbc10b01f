// Calls of the system and allocations that fail as planned.

#include "apps/failing_plan.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <dirent.h>
#include <dlfcn.h>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using TestSupport::IsChosen;

// NOLINTBEGIN(bugprone-macro-parentheses): parameter lists bring their own
#define WRAP(result, name, parameters, arguments, failed)                                          \
  extern "C" [[gnu::visibility("default")]] result name parameters {                               \
    using Function = result(*) parameters;                                                         \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, __builtin_return_address(0))) return failed;                               \
    return real arguments;                                                                         \
  }
#define WRAP_TRANSFER(name, bytes)                                                                 \
  extern "C" [[gnu::visibility("default")]] ssize_t name(int fd, bytes* data, std::size_t size) {  \
    using Function = ssize_t (*)(int, bytes*, std::size_t);                                        \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, __builtin_return_address(0))) {                                            \
      if (errno != 0) return -1;                                                                   \
      size = (size + 1) / 2;                                                                       \
    }                                                                                              \
    return real(fd, data, size);                                                                   \
  }

// Declared without "...": the mode is passed on where there is none, too.
WRAP(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), -1)
WRAP(int, openat, (int folder, const char* path, int flags, mode_t mode),
     (folder, path, flags, mode), -1)
WRAP_TRANSFER(read, void)
WRAP_TRANSFER(write, const void)
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

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  return IsChosen("malloc", __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  return IsChosen("calloc", __builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}
[[gnu::visibility("default")]] void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return IsChosen("aligned_alloc", __builtin_return_address(0)) ? nullptr
                                                                : __libc_memalign(alignment, size);
}
}

/// The C++ library's own comes down to malloc, and then it would be the caller of each.
[[gnu::visibility("default")]] void* operator new(std::size_t size) {
  if (IsChosen("operator new", __builtin_return_address(0))) throw std::bad_alloc();
  return __libc_malloc(size);
}
