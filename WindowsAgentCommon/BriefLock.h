#pragma once

#include <atomic>
#include <thread>

namespace WindowsAgentCommon {

// A lock for a few instructions that hardly ever meet those of another thread: one atomic operation
// to take it, a plain store to give it, and a byte of memory. Who has to wait gives its processor
// away again and again until the lock is free. So nothing that may block is done with it held, but
// for what comes once at a start, as a declaration that allocates.
class BriefLock {
 public:
  void lock() {
    while (!try_lock()) {
      std::this_thread::yield();
    }
  }
  bool try_lock() { return !m_held.exchange(true, std::memory_order_acquire); }
  void unlock() { m_held.store(false, std::memory_order_release); }

  bool IsHeld() const { return m_held.load(std::memory_order_acquire); }

 private:
  std::atomic<bool> m_held{false};
};

}  // namespace WindowsAgentCommon
