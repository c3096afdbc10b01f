#include "realtime/watch.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <thread>

namespace TestSupport {
namespace {

struct AddressRange {
  std::uintptr_t begin = 0, end = 0;
  bool Has(const void* address) const {
    return reinterpret_cast<std::uintptr_t>(address) - begin < end - begin;
  }
};

/// Where the engine's code lies; found before the watch begins, since asking takes a lock.
AddressRange engine;

constexpr int mostCallers = 64;

/// The first of ours of an act: plain memory, since it is written in the middle of anything.
struct FirstAct {
  const char* name = nullptr;
  long number = -1;
  int depth = 0;
  void* callers[mostCallers];
};

thread_local bool isWatched = false;
thread_local Tally ours, engines;
thread_local std::array<FirstAct, actNames.size()> firsts;

void Note(Act act, const char* name, long number = -1) {
  if (!isWatched) return;
  isWatched = false;
  void* callers[mostCallers];
  const int depth = backtrace(callers, mostCallers);
  const bool isEngines =
      std::any_of(callers, callers + depth, [](void* at) { return engine.Has(at); });
  ++(isEngines ? engines : ours).counts[static_cast<std::size_t>(act)];
  FirstAct& first = firsts[static_cast<std::size_t>(act)];
  if (!isEngines && !first.name) {
    first.name = name;
    first.number = number;
    first.depth = depth;
    std::copy_n(callers, depth, first.callers);
  }
  isWatched = true;
}

int FindEngine(dl_phdr_info* module, std::size_t, void*) {
  if (!std::strstr(module->dlpi_name, "libonnxruntime")) return 0;
  for (int i = 0; i < module->dlpi_phnum; ++i) {
    const auto& segment = module->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X)) continue;
    engine.begin = module->dlpi_addr + segment.p_vaddr;
    engine.end = engine.begin + segment.p_memsz;
  }
  return 1;
}

}  // namespace

// A system call that the filter below lets pass, known by the address behind its instruction.
// long PassSystemCall(long number, a, b, c, d, e, f)
#if defined(__aarch64__)
asm(R"(
  .pushsection .text
PassSystemCall:
  mov x8, x0
  mov x0, x1
  mov x1, x2
  mov x2, x3
  mov x3, x4
  mov x4, x5
  mov x5, x6
  svc #0
BehindPassedSystemCall:
  ret
  .popsection
)");
#else
asm(R"(
  .pushsection .text
PassSystemCall:
  mov %rdi, %rax
  mov %rsi, %rdi
  mov %rdx, %rsi
  mov %rcx, %rdx
  mov %r8, %r10
  mov %r9, %r8
  mov 8(%rsp), %r9
  syscall
BehindPassedSystemCall:
  ret
  .popsection
)");
#endif
extern "C" {
long PassSystemCall(long, long, long, long, long, long, long);
extern const char BehindPassedSystemCall;
}

namespace {

bool MakesThread(long number) {
#if defined(SYS_vfork)
  if (number == SYS_vfork) return true;
#endif
  return number == SYS_clone || number == SYS_clone3;
}

/// Counts the system call and makes it after all. One that makes a thread is refused: it cannot
/// be made from here.
void ReceiveSystemCall(int, siginfo_t* signal, void* context) {
  const int keptErrno = errno;
  mcontext_t& machine = static_cast<ucontext_t*>(context)->uc_mcontext;
  const long number = signal->si_syscall;
  Note(Act::SystemCall, "system call", number);
#if defined(__aarch64__)
  auto* const r = machine.regs;
  auto& result = r[0];
  const auto pass = [&] { return PassSystemCall(number, r[0], r[1], r[2], r[3], r[4], r[5]); };
#else
  auto* const r = machine.gregs;
  auto& result = r[REG_RAX];
  const auto pass = [&] {
    return PassSystemCall(number, r[REG_RDI], r[REG_RSI], r[REG_RDX], r[REG_R10], r[REG_R8],
                          r[REG_R9]);
  };
#endif
  result = MakesThread(number) ? -EPERM : pass();
  errno = keptErrno;
}

/// From now on this thread's system calls come to ReceiveSystemCall. For good: a filter cannot be
/// taken back.
bool ReportSystemCalls() {
  struct sigaction action = {};
  action.sa_sigaction = ReceiveSystemCall;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  if (sigaction(SIGSYS, &action, nullptr) != 0) return false;
  const auto behind = reinterpret_cast<std::uintptr_t>(&BehindPassedSystemCall);
  const auto low = static_cast<std::uint32_t>(behind);
  const auto high = static_cast<std::uint32_t>(behind >> 32);
  const std::uint32_t instruction = offsetof(seccomp_data, instruction_pointer);
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, instruction),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, low, 0, 2),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, instruction + 4),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, high, 2, 0),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
  };
  const sock_fprog filter = {sizeof rules / sizeof *rules, rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

std::string TextOf(const FirstAct& act) {
  if (!act.name) return {};
  std::string text = act.name;
  if (act.number >= 0) text += ' ' + std::to_string(act.number);
  const std::unique_ptr<char*, decltype(&std::free)> lines(
      backtrace_symbols(act.callers, act.depth), &std::free);
  for (int i = 0; lines && i < act.depth; ++i)
    text += std::string("\n  ") + lines.get()[i];
  return text;
}

}  // namespace

long Tally::Sum() const {
  return std::accumulate(counts.begin(), counts.end(), 0L);
}

std::string Observed::Text() const {
  std::string text;
  for (const std::string& first : firstOfOurs)
    if (!first.empty()) text += first + '\n';
  return text;
}

Observed RunWatched(const std::function<void()>& work) {
  engine = {};
  dl_iterate_phdr(FindEngine, nullptr);
  Observed result;
  std::thread([&] {
    void* frame[1];
    backtrace(frame, 1);  // loads what it needs at its first call
    ours = engines = {};
    firsts = {};
    result.seesSystemCalls = ReportSystemCalls();
    isWatched = true;
    work();
    isWatched = false;
    result.ours = ours;
    result.engines = engines;
    std::transform(firsts.begin(), firsts.end(), result.firstOfOurs.begin(), TextOf);
  }).join();
  return result;
}

}  // namespace TestSupport

// The replacements. operator new and delete come down to malloc and free in the language's library.

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
int __cxa_guard_acquire(std::uint64_t*);
}

#pragma GCC visibility push(default)
extern "C" {
using TestSupport::Act;
using TestSupport::Note;

// A parameter list and a list of arguments bring their own parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)

// dlsym allocates, so these cannot go through it.
#define ALLOCATOR(name, parameters, passedTo)                                                      \
  void* name parameters {                                                                          \
    Note(Act::Allocation, #name);                                                                  \
    return passedTo;                                                                               \
  }
ALLOCATOR(malloc, (std::size_t size), __libc_malloc(size))
ALLOCATOR(calloc, (std::size_t count, std::size_t size), __libc_calloc(count, size))
ALLOCATOR(realloc, (void* block, std::size_t size), __libc_realloc(block, size))
ALLOCATOR(aligned_alloc, (std::size_t grid, std::size_t size), __libc_memalign(grid, size))
ALLOCATOR(memalign, (std::size_t grid, std::size_t size), __libc_memalign(grid, size))

int posix_memalign(void** block, std::size_t grid, std::size_t size) {
  Note(Act::Allocation, "posix_memalign");
  *block = __libc_memalign(grid, size);
  return *block ? 0 : ENOMEM;
}
void free(void* block) {
  if (block) Note(Act::Release, "free");
  __libc_free(block);
}

#define PASS_ON(act, name, parameters, arguments)                                                  \
  int name parameters {                                                                            \
    static decltype(&name) next = nullptr;                                                         \
    auto found = __atomic_load_n(&next, __ATOMIC_RELAXED);                                         \
    if (!found) {                                                                                  \
      found = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name));                          \
      __atomic_store_n(&next, found, __ATOMIC_RELAXED);                                            \
    }                                                                                              \
    Note(Act::act, #name);                                                                         \
    return found arguments;                                                                        \
  }
#define WAIT(name, parameters, arguments) PASS_ON(Wait, name, parameters, arguments)
WAIT(pthread_mutex_lock, (pthread_mutex_t * m), (m))
WAIT(pthread_mutex_trylock, (pthread_mutex_t * m), (m))
WAIT(pthread_mutex_timedlock, (pthread_mutex_t * m, const timespec* t), (m, t))
WAIT(pthread_mutex_clocklock, (pthread_mutex_t * m, clockid_t c, const timespec* t), (m, c, t))
WAIT(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
WAIT(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
WAIT(pthread_rwlock_tryrdlock, (pthread_rwlock_t * l), (l))
WAIT(pthread_rwlock_trywrlock, (pthread_rwlock_t * l), (l))
WAIT(pthread_spin_lock, (pthread_spinlock_t * l), (l))
WAIT(pthread_spin_trylock, (pthread_spinlock_t * l), (l))
WAIT(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
WAIT(pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, const timespec* t), (c, m, t))
WAIT(pthread_cond_clockwait,
     (pthread_cond_t * c, pthread_mutex_t* m, clockid_t k, const timespec* t), (c, m, k, t))
WAIT(pthread_cond_signal, (pthread_cond_t * c), (c))
WAIT(pthread_cond_broadcast, (pthread_cond_t * c), (c))
WAIT(pthread_barrier_wait, (pthread_barrier_t * b), (b))
WAIT(pthread_once, (pthread_once_t * o, void (*f)()), (o, f))
WAIT(pthread_join, (pthread_t t, void** r), (t, r))
WAIT(sem_wait, (sem_t * s), (s))
WAIT(sem_trywait, (sem_t * s), (s))
WAIT(sem_timedwait, (sem_t * s, const timespec* t), (s, t))
PASS_ON(WakeUp, sem_post, (sem_t * s), (s))
WAIT(nanosleep, (const timespec* t, timespec* left), (t, left))
WAIT(clock_nanosleep, (clockid_t c, int f, const timespec* t, timespec* left), (c, f, t, left))
WAIT(usleep, (useconds_t t), (t))
WAIT(sched_yield, (), ())
WAIT(poll, (pollfd * files, nfds_t count, int timeout), (files, count, timeout))
WAIT(select, (int n, fd_set* r, fd_set* w, fd_set* e, timeval* t), (n, r, w, e, t))
/// The first pass through the initialization of a function's static variable.
WAIT(__cxa_guard_acquire, (std::uint64_t * guard), (guard))
// NOLINTEND(bugprone-macro-parentheses)
}
#pragma GCC visibility pop
