// Preloaded into the program: calls of the system and allocations fail, chosen by their numbers
// among those that count. From the environment:
//   KALVRIN_FAIL_FIRST, _LAST  the numbers, from 1; 0: none fails
//   KALVRIN_FAIL_NAMES         the functions that count; "memory": all that allocate; "": the rest
//   KALVRIN_FAIL_WITH          an errno; 0: a read or write does half of what was asked
//   KALVRIN_FAIL_LEDGER        the file of a Ledger, which counts on
// Calls count from `main` on; only the program's own do, and those that the C and the C++ library
// make for it.

#include "apps/ledger.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unwind.h>

using TestSupport::Ledger;

namespace {

constexpr unsigned mostSeconds = 30;

const char* Setting(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
  return value ? value : "";
}

int Number(const char* name) {
  return std::atoi(Setting(name));  // NOLINT(cert-err34-c)
}

struct Plan {
  int first = Number("KALVRIN_FAIL_FIRST"), last = Number("KALVRIN_FAIL_LAST");
  int error = Number("KALVRIN_FAIL_WITH");
  std::string_view names = Setting("KALVRIN_FAIL_NAMES");
  Ledger* ledger;

  bool Counts(std::string_view name) const {
    const bool isAllocation = name.ends_with("alloc") || name == "operator new";
    if (names == "memory") return isAllocation;
    return names.empty() ? !isAllocation : names.find(name) != std::string_view::npos;
  }
};

/// None before `main`.
std::optional<Plan> plan;

std::string_view ModuleOf(void* address) {
  dl_find_object found{};
  return _dl_find_object(address, &found) == 0 ? found.dlfo_link_map->l_name : "?";
}

/// A library that calls for whoever called it: the C and the C++ library, the loader, this one.
bool IsGoBetween(std::string_view module) {
  constexpr std::string_view names[] = {"/libc.so", "/libstdc++.so", "/libgcc_s.so", "/ld-linux",
                                        "/libkalvrin_test_failing_calls.so"};
  return std::ranges::any_of(
      names, [&](auto name) { return module.find(name) != std::string_view::npos; });
}

/// Whether the program itself calls. The engine, protobuf and libsndfile answer for themselves.
bool IsPrograms(void* caller) {
  std::string_view module = ModuleOf(caller);
  if (IsGoBetween(module))
    _Unwind_Backtrace(
        [](_Unwind_Context* frame, void* result) {
          auto& found = *static_cast<std::string_view*>(result);
          // NOLINTNEXTLINE(performance-no-int-to-ptr): so the unwinder gives addresses
          found = ModuleOf(reinterpret_cast<void*>(_Unwind_GetIP(frame)));
          return IsGoBetween(found) ? _URC_NO_REASON : _URC_END_OF_STACK;
        },
        &module);
  return module.empty();  // the program has no name
}

int (*realMain)(int, char**, char**) = nullptr;

int MainWithPlan(int count, char** values, char** environment) {
  std::FILE* const file = std::fopen(Setting("KALVRIN_FAIL_LEDGER"), "r+");
  if (!file) std::abort();
  void* const shared =
      mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED, fileno(file), 0);
  std::fclose(file);
  if (shared == MAP_FAILED) std::abort();
  alarm(mostSeconds);  // what waits for ever is a failure, too
  plan.emplace().ledger = static_cast<Ledger*>(shared);
  return realMain(count, values, environment);
}

/// Counts a call. True: it is to fail, and errno says how. `caller` is where it returns to.
bool IsChosen(const char* name, void* caller) {
  if (!plan || !plan->Counts(name) || !IsPrograms(caller)) return false;
  const int call = ++std::atomic_ref(plan->ledger->calls);
  if (call < plan->first || call > plan->last) return false;
  if (call == plan->first) std::strncpy(plan->ledger->failed, name, sizeof Ledger::failed - 1);
  errno = plan->error;
  return true;
}

}  // namespace

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

extern "C" [[gnu::visibility("default")]] int
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that a program's start calls
__libc_start_main(int (*function)(int, char**, char**), int count, char** values, void (*begin)(),
                  void (*end)(), void (*endOfLoader)(), void* stackEnd) {
  realMain = function;
  const auto real =
      reinterpret_cast<decltype(&__libc_start_main)>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return real(MainWithPlan, count, values, begin, end, endOfLoader, stackEnd);
}
