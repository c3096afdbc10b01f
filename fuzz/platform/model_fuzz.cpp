// The bytes of a model through the real engine, each in a process of its own: the engine may end
// that process, the library may not.

#include "runtime/model_loading.h"
#include "stream/set_up.h"
#include "support/input.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <span>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

// The sanitizer's account of an error; null in other builds.
extern "C" {
[[gnu::weak]] const char* __asan_get_report_description();
[[gnu::weak]] void* __asan_get_report_pc();

const char* __asan_default_options() {
  return "handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigfpe=0:handle_sigill=0:"
         "detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=1024";
}
}

namespace {

using namespace Orvik::Tesmo;

enum class Ending { Taken, Refused, EngineFault, Memory, Time, OurFault, count };

/// How a child ended; the parent sees it. Behind it stands what the child covered.
struct Report {
  Ending ending;
};

/// What libFuzzer goes by; empty in other builds. The compiler's own declarations of these symbols
/// suffer no others beside them.
std::span<std::uint8_t> Coverage() {
  std::uint8_t *start, *stop;
  asm(".weak __start___sancov_cntrs\n.weak __stop___sancov_cntrs\n"
#if defined(__aarch64__)
      "adrp %0, :got:__start___sancov_cntrs\n"
      "ldr %0, [%0, :got_lo12:__start___sancov_cntrs]\n"
      "adrp %1, :got:__stop___sancov_cntrs\n"
      "ldr %1, [%1, :got_lo12:__stop___sancov_cntrs]"
#else
      "mov __start___sancov_cntrs@GOTPCREL(%%rip), %0\n"
      "mov __stop___sancov_cntrs@GOTPCREL(%%rip), %1"
#endif
      : "=&r"(start), "=&r"(stop));
  return {start, stop};
}

Report* report = nullptr;

std::uint8_t* Counters() {
  return reinterpret_cast<std::uint8_t*>(report + 1);
}

[[noreturn]] void End(Ending ending) {
  report->ending = ending;
  std::ranges::copy(Coverage(), Counters());
  _exit(0);
}

bool IsEngine(void* address) {
  Dl_info info{};
  return dladdr(address, &info) && info.dli_fname && std::strstr(info.dli_fname, "libonnxruntime");
}
bool IsOurs(void* address) {
  Dl_info info{}, self{};
  return dladdr(address, &info) && dladdr(reinterpret_cast<void*>(&IsOurs), &self) &&
         info.dli_fbase == self.dli_fbase;
}

/// The fault is charged to the engine or to us: whichever the innermost frame of either belongs to.
void OnFault(int, siginfo_t*, void* context) {
  const auto& machine = static_cast<ucontext_t*>(context)->uc_mcontext;
#if defined(__aarch64__)
  const auto counter = machine.pc;
#else
  const auto counter = machine.gregs[REG_RIP];
#endif
  // NOLINTNEXTLINE(performance-no-int-to-ptr): it is a pointer
  auto* const place = reinterpret_cast<void*>(counter);
  void* frames[64];
  const int count = backtrace(frames, 64);
  bool within = false;
  for (int i = 0; i < count; ++i) {
    within = within || frames[i] == place;
    if (within && IsEngine(frames[i])) End(Ending::EngineFault);
    if (within && IsOurs(frames[i])) End(Ending::OurFault);
  }
  End(Ending::EngineFault);  // a wild jump: nothing of ours makes one
}

[[noreturn]] void RunModel(const std::shared_ptr<Platform::Runtime>& runtime,
                           const std::uint8_t* data, std::size_t size) {
  struct sigaction action {};
  action.sa_sigaction = OnFault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
    sigaction(signal, &action, nullptr);
  static unsigned char stack[1 << 16];
  const stack_t alternative = {stack, 0, sizeof stack};
  sigaltstack(&alternative, nullptr);
  std::signal(SIGALRM, [](int) { End(Ending::Time); });
  alarm(20);
  try {
    const auto stream =
        AssembleStream(runtime, Dnn::LoadLearningModel(*runtime, data, size), 2, 1, 64);
    stream->ResetGains();
    stream->SetAudioClassGain(u"Rest", 0.5F);
    std::vector<float> samples(64);
    float* const channels[] = {samples.data()};
    for (int i = 0; i < 8; ++i)
      stream->ProcessBlock(channels, channels, 64, 1);
    stream->SetChannelCount(2);
    stream->SetSequenceSize(3);
    End(Ending::Taken);
  } catch (...) {
    End(Ending::Refused);
  }
}

/// One engine for all, made before there is a child.
class Rig {
public:
  Rig() : runtime(OpenRuntime(KALVRIN_ENGINE_FOLDER)) {
    void* const shared = mmap(nullptr, sizeof(Report) + Coverage().size(), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Fuzz::Expect(shared != MAP_FAILED, "no memory");
    report = static_cast<Report*>(shared);
    void* frames[1];
    backtrace(frames, 1);  // loads what it needs, which a handler may not
  }
  ~Rig() {
    std::printf("taken %lu, refused %lu; the engine ended its process %lu, had no memory %lu, took "
                "too long %lu\n",
                endings[0], endings[1], endings[2], endings[3], endings[4]);
  }
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  void Try(const std::uint8_t* data, std::size_t size) {
    report->ending = Ending::OurFault;
    const pid_t child = fork();
    Fuzz::Expect(child >= 0, "no process");
    if (child == 0) RunModel(runtime, data, size);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    Fuzz::Expect(report->ending != Ending::OurFault, "the library ended its process: %d", status);
    ++endings[static_cast<std::size_t>(report->ending)];
    std::copy_n(Counters(), Coverage().size(), Coverage().data());
  }

private:
  std::shared_ptr<Platform::Runtime> runtime;
  unsigned long endings[static_cast<std::size_t>(Ending::count)] = {};
};

}  // namespace

/// The sanitizer has found something; it ends the process next.
extern "C" void __asan_on_error() {
  if (!report) return;
  const char* const what = __asan_get_report_description();
  const bool isMemory = std::strstr(what, "out-of-memory") || std::strstr(what, "too-big");
  if (isMemory) End(Ending::Memory);
  if (IsEngine(__asan_get_report_pc())) End(Ending::EngineFault);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Rig rig;
  rig.Try(data, size);
  return 0;
}
