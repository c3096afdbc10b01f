#pragma once

// Choices from the bytes of a fuzzer or of a random generator, and saying what is wrong.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Fuzz {

/// A fuzzer's bytes as a row of choices. Past their end every choice is the first one.
class Input {
public:
  Input(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

  bool IsEmpty() const { return at == end; }
  std::uint8_t Byte() { return at == end ? std::uint8_t{0} : *at++; }
  bool Flag() { return (Byte() & 1) != 0; }

  /// From `low` to `high`; takes as many bytes as the range needs.
  std::uint64_t Number(std::uint64_t low, std::uint64_t high) {
    const std::uint64_t range = high - low;
    std::uint64_t value = 0;
    for (std::uint64_t rest = range; rest != 0; rest >>= 8)
      value = value << 8 | Byte();
    return range == ~std::uint64_t{0} ? value : low + value % (range + 1);
  }
  int Int(int low, int high) {
    return static_cast<int>(low + static_cast<std::int64_t>(Number(
                                      0, static_cast<std::uint64_t>(std::int64_t{high} - low))));
  }
  template <class T, std::size_t N>
  const T& Pick(const T (&all)[N]) {
    return all[Number(0, N - 1)];
  }
  std::string Rest() {
    std::string rest(reinterpret_cast<const char*>(at), static_cast<std::size_t>(end - at));
    at = end;
    return rest;
  }

private:
  const std::uint8_t* at;
  const std::uint8_t* end;
};

/// Ends the process with the text (printf's) unless `holds`.
[[gnu::format(printf, 2, 3)]] inline void Expect(bool holds, const char* format, ...) {
  if (holds) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::fputs("FAULT: ", stderr);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
  va_end(arguments);
  std::abort();
}

}  // namespace Fuzz
