#pragma once

// Memory for kernels: no byte before or behind it can be touched unseen. And how a check reports a
// fault.

#include "support/input.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace KernelTest {

using Fuzz::Input;

/// Throws the text (printf's) unless `holds`: a test reports it and goes on, a fuzzer's program
/// ends.
[[gnu::format(printf, 2, 3)]] inline void Expect(bool holds, const char* format, ...) {
  if (holds) return;
  char text[400];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  throw std::runtime_error(text);
}

/// Room between two pages without access. A block stands against one of them, or up to 63 bytes
/// away, which gives every alignment; what lies between must stay as it is.
class GuardedRoom {
public:
  GuardedRoom() = default;
  ~GuardedRoom() { Free(); }
  GuardedRoom(const GuardedRoom&) = delete;
  GuardedRoom& operator=(const GuardedRoom&) = delete;

  /// A block of `bytes` bytes, `distance` (to 63) away from the page behind it or before it.
  unsigned char* Place(std::size_t bytes, std::size_t distance, bool atFront) {
    if (bytes + 64 > length) Map(bytes + 64);
    begin = atFront ? start + distance : start + length - distance - bytes;
    size = bytes;
    std::memset(begin, 0, size);
    Around([](unsigned char& byte) { byte = guard; });
    return begin;
  }
  bool Intact() {
    bool intact = true;
    Around([&](const unsigned char& byte) { intact = intact && byte == guard; });
    return intact;
  }

private:
  static inline const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  static constexpr unsigned char guard = 0xA5;

  void Map(std::size_t bytes) {
    Free();
    length = (bytes + page - 1) / page * page;
    void* const map =
        mmap(nullptr, length + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    Expect(map != MAP_FAILED, "no memory");
    start = static_cast<unsigned char*>(map) + page;
    Expect(mprotect(start, length, PROT_READ | PROT_WRITE) == 0, "no memory");
  }
  void Free() {
    if (start) munmap(start - page, length + 2 * page);
  }
  template <class Visit>
  void Around(Visit visit) {
    unsigned char* const end = start + length;
    for (unsigned char* p = begin - start > 64 ? begin - 64 : start; p < begin; ++p)
      visit(*p);
    for (unsigned char* p = begin + size; p < end && p < begin + size + 64; ++p)
      visit(*p);
  }

  std::size_t length = 0, size = 0;
  unsigned char *start = nullptr, *begin = nullptr;
};

/// A place that the input chooses.
template <class T>
T* Place(GuardedRoom& room, Input& input, std::size_t count) {
  const std::uint8_t choice = input.Byte();
  const std::size_t distance = choice & 0x80 ? choice & 63U : (choice & 63U) / 4 * 4;
  return reinterpret_cast<T*>(room.Place(count * sizeof(T), distance, (choice & 0x40) != 0));
}

template <class T>
void Put(T* place, const std::vector<T>& values) {
  if (!values.empty())
    std::memcpy(static_cast<void*>(place), values.data(), values.size() * sizeof(T));
}
template <class T>
std::vector<T> Get(const T* place, std::size_t count) {
  std::vector<T> values(count);
  if (count > 0) std::memcpy(static_cast<void*>(values.data()), place, count * sizeof(T));
  return values;
}

}  // namespace KernelTest
