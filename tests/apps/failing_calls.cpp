// Preloaded into the program: one call of the system fails, chosen by its number. From the
// environment:
//   KALVRIN_FAIL_CALL   the number, from 1
//   KALVRIN_FAIL_AS     an errno; "short": one read or write does half of what was asked
//   KALVRIN_FAIL_LOG    a file for the name of the call that failed
// With EINTR and "short" only reads and writes count. The engine's own calls never do.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const char* Setting(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
  return value ? value : "";
}

struct Plan {
  int number = std::atoi(Setting("KALVRIN_FAIL_CALL"));  // NOLINT(cert-err34-c)
  bool isShort = std::string_view(Setting("KALVRIN_FAIL_AS")) == "short";
  int error = std::atoi(Setting("KALVRIN_FAIL_AS"));  // NOLINT(cert-err34-c)
  std::atomic<int> calls = 0;
};

/// A child and its parent count together.
Plan& ThePlan() {
  static Plan& plan = *new (
      mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Plan;
  return plan;
}

bool IsChosen(const char* name, bool moves, void* caller) {
  Plan& plan = ThePlan();
  Dl_info info{};
  if ((!moves && (plan.isShort || plan.error == EINTR)) || !dladdr(caller, &info) ||
      std::strstr(info.dli_fname, "libonnxruntime") || ++plan.calls != plan.number)
    return false;
  const auto log = static_cast<int>(
      syscall(SYS_open, Setting("KALVRIN_FAIL_LOG"), O_WRONLY | O_CREAT | O_APPEND, 0666));
  syscall(SYS_write, log, name, std::strlen(name));
  syscall(SYS_close, log);
  errno = plan.error;
  return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-macro-parentheses): parameter lists bring their own
#define WRAP(result, name, parameters, arguments, failed)                                          \
  extern "C" [[gnu::visibility("default")]] result name parameters {                               \
    using Function = result(*) parameters;                                                         \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, false, __builtin_return_address(0))) return failed;                        \
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
    if (IsChosen(#name, false, __builtin_return_address(0))) return -1;                            \
    return real arguments;                                                                         \
  }
#define WRAP_TRANSFER(name, bytes)                                                                 \
  extern "C" [[gnu::visibility("default")]] ssize_t name(int fd, bytes* data, std::size_t size) {  \
    using Function = ssize_t (*)(int, bytes*, std::size_t);                                        \
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #name));                  \
    if (IsChosen(#name, true, __builtin_return_address(0))) {                                      \
      if (!ThePlan().isShort) return -1;                                                           \
      size = (size + 1) / 2;                                                                       \
    }                                                                                              \
    return real(fd, data, size);                                                                   \
  }

WRAP_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
WRAP_OPEN(openat, (int folder, const char* path, int flags, ...), (folder, path, flags, mode))
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
// NOLINTEND(bugprone-macro-parentheses)
