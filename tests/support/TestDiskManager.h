#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "WindowsAgentCommon/DiskManager.h"

namespace TestSupport {

// A disk manager service that records what it is asked and answers as told. Registered while the
// object that holds it lives.
class TestDiskManager : public WindowsAgentCommon::IDiskManager {
 public:
  explicit TestDiskManager(std::wstring dataDirectory)
      : m_dataDirectory(std::move(dataDirectory)) {}

  const std::wstring& GetDataDirectory() override { return m_dataDirectory; }
  bool ReserveSpace(unsigned reserved, std::uint64_t bytes) override;
  void ReleaseSpace(unsigned reserved, std::uint64_t bytes) override;

  // Asked at each reservation, outside the lock; may throw. Empty: always yes.
  void SetAnswer(std::function<bool(std::uint64_t)> answer);

  struct Call {
    unsigned first;
    std::uint64_t bytes;
    bool operator==(const Call&) const = default;
  };
  std::vector<Call> Reserved() const;  // granted ones only
  std::vector<Call> Refused() const;
  std::vector<Call> Released() const;
  // Bytes reserved and not released.
  std::int64_t Balance() const;

 private:
  std::wstring m_dataDirectory;
  mutable std::mutex m_lock;
  std::function<bool(std::uint64_t)> m_answer;
  std::vector<Call> m_reserved;
  std::vector<Call> m_refused;
  std::vector<Call> m_released;
};

}  // namespace TestSupport
