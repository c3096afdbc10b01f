#pragma once

#include <cstddef>

namespace TestSupport {

/// While one lives, the allocations of this thread by operator new from number `from` on (counted
/// from 0) fail: one of them, or all. Or those of more than `most` bytes fail. A program that links
/// this has its operator new replaced, and ends with a message where a block that is released was
/// written past its end.
class FailingHeap {
public:
  enum class Extent { One, All };

  FailingHeap(long from, Extent extent);
  explicit FailingHeap(std::size_t most);
  ~FailingHeap();
  FailingHeap(const FailingHeap&) = delete;
  FailingHeap& operator=(const FailingHeap&) = delete;

  bool HasFailed() const { return hasFailed; }
  /// Counts an allocation of `size` bytes. True: it is to fail.
  bool Fails(std::size_t size);

private:
  Extent extent = Extent::One;
  long left = -1;
  std::size_t most = ~std::size_t{0};
  bool hasFailed = false;
};

}  // namespace TestSupport
