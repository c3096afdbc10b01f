#include "apps/failing_plan.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <unwind.h>

namespace TestSupport {
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
  const int file = open(Setting("KALVRIN_FAIL_LEDGER"), O_RDWR | O_CLOEXEC);
  void* const shared = mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (shared == MAP_FAILED) std::abort();
  alarm(mostSeconds);  // what waits for ever is a failure, too
  plan.emplace().ledger = static_cast<Ledger*>(shared);
  return realMain(count, values, environment);
}

}  // namespace

bool IsChosen(const char* name, void* caller) {
  if (!plan || !plan->Counts(name) || !IsPrograms(caller)) return false;
  const int call = ++std::atomic_ref(plan->ledger->calls);
  if (call < plan->first || call > plan->last) return false;
  if (call == plan->first) std::strncpy(plan->ledger->failed, name, sizeof Ledger::failed - 1);
  errno = plan->error;
  return true;
}

}  // namespace TestSupport

extern "C" [[gnu::visibility("default")]] int
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that a program's start calls
__libc_start_main(int (*function)(int, char**, char**), int count, char** values, void (*begin)(),
                  void (*end)(), void (*endOfLoader)(), void* stackEnd) {
  TestSupport::realMain = function;
  const auto real =
      reinterpret_cast<decltype(&__libc_start_main)>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return real(TestSupport::MainWithPlan, count, values, begin, end, endOfLoader, stackEnd);
}
