#pragma once

namespace TestSupport {

/// While one lives, the allocations of this thread by operator new from number `from` on (counted
/// from 0) fail: one of them, or all. A program that links this has its operator new replaced,
/// and ends with a message where a block that is released was written past its end.
class FailingHeap {
public:
  enum class Extent { One, All };

  FailingHeap(long from, Extent extent);
  ~FailingHeap();
  FailingHeap(const FailingHeap&) = delete;
  FailingHeap& operator=(const FailingHeap&) = delete;

  bool HasFailed() const { return hasFailed; }
  /// Counts an allocation. True: it is to fail.
  bool Fails();

private:
  Extent extent;
  long left;
  bool hasFailed = false;
};

}  // namespace TestSupport
