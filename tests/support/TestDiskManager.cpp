#include "tests/support/TestDiskManager.h"

namespace TestSupport {

bool TestDiskManager::ReserveSpace(unsigned reserved, std::uint64_t bytes) {
  std::function<bool(std::uint64_t)> answer;
  {
    const std::lock_guard guard(m_lock);
    answer = m_answer;
  }
  const bool granted = !answer || answer(bytes);
  const std::lock_guard guard(m_lock);
  (granted ? m_reserved : m_refused).push_back({reserved, bytes});
  return granted;
}

void TestDiskManager::ReleaseSpace(unsigned reserved, std::uint64_t bytes) {
  const std::lock_guard guard(m_lock);
  m_released.push_back({reserved, bytes});
}

void TestDiskManager::SetAnswer(std::function<bool(std::uint64_t)> answer) {
  const std::lock_guard guard(m_lock);
  m_answer = std::move(answer);
}

std::vector<TestDiskManager::Call> TestDiskManager::Reserved() const {
  const std::lock_guard guard(m_lock);
  return m_reserved;
}

std::vector<TestDiskManager::Call> TestDiskManager::Refused() const {
  const std::lock_guard guard(m_lock);
  return m_refused;
}

std::vector<TestDiskManager::Call> TestDiskManager::Released() const {
  const std::lock_guard guard(m_lock);
  return m_released;
}

std::int64_t TestDiskManager::Balance() const {
  const std::lock_guard guard(m_lock);
  std::int64_t balance = 0;
  for (const Call& call : m_reserved) {
    balance += static_cast<std::int64_t>(call.bytes);
  }
  for (const Call& call : m_released) {
    balance -= static_cast<std::int64_t>(call.bytes);
  }
  return balance;
}

}  // namespace TestSupport
