#include "Platform/posix/Faults.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace Platform {

namespace {

// Set by the first use of TestFaults and never cleared: from then on calls are counted, hook or
// not. A process without tests never leaves the short path.
std::atomic<bool> inUse{false};

std::atomic<std::uint64_t> callCount{0};

std::mutex hookMutex;
std::shared_ptr<const TestFaults::Hook> hook;  // guarded by hookMutex; null without a hook

void Install(std::shared_ptr<const TestFaults::Hook> newHook) {
  const std::lock_guard lock(hookMutex);
  hook = std::move(newHook);
  callCount.store(0);
  inUse.store(true);
}

}  // namespace

TestFaults::Fault AskFault(TestFaults::FileCall call) {
  if (!inUse.load(std::memory_order_acquire)) {
    return {};
  }
  std::shared_ptr<const TestFaults::Hook> current;
  {
    const std::lock_guard lock(hookMutex);
    current = hook;
    callCount.fetch_add(1);
  }
  return current ? (*current)(call) : TestFaults::Fault{};
}

namespace TestFaults {

void SetHook(Hook newHook) {
  Install(newHook ? std::make_shared<const Hook>(std::move(newHook)) : nullptr);
}

void FailNth(std::uint64_t n, std::uint32_t error) {
  auto seen = std::make_shared<std::atomic<std::uint64_t>>(0);
  SetHook([seen, n, error](FileCall) -> Fault {
    // A write that fails this way has written nothing.
    return seen->fetch_add(1) == n ? Fault{error, 0} : Fault{};
  });
}

std::uint64_t CallCount() { return callCount.load(); }

void Reset() { Install(nullptr); }

}  // namespace TestFaults

}  // namespace Platform
