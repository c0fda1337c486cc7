#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "WindowsAgentCommon/Services.h"

namespace WindowsAgentCommon {

// The agent's keeper of disk space. Any thread.
class IDiskManager : public IServiceComponent {
 public:
  static const std::string& GetServiceName();

  // The directory below which components keep their data; ends with a separator. Never changes.
  virtual const std::wstring& GetDataDirectory() = 0;

  // Asks for room for `bytes` more bytes. False: not now; nothing was reserved. The first
  // argument is reserved and 0.
  virtual bool ReserveSpace(unsigned reserved, std::uint64_t bytes) = 0;

  // Tells that `bytes` bytes are free again. Releasing more than is in use stops at zero.
  virtual void ReleaseSpace(unsigned reserved, std::uint64_t bytes) = 0;
};

struct DiskManagerOptions {
  // A separator is appended if it is missing. Made (with its parents) if it does not exist.
  std::wstring dataDirectory;
  // How many bytes may lie below the data directory; 0: no limit.
  std::uint64_t quota = 0;
  // How many bytes of the file system must stay free; 0: no limit.
  std::uint64_t keepFree = 0;
};

// Counts what lies below the data directory at construction as used, and from then on what is
// reserved and released. A reservation is refused when it would pass the quota or leave less than
// `keepFree` on the file system. Where the free space can't be asked, only the quota counts.
class DiskManager : public IDiskManager {
 public:
  // Throws InitializationException when the directory can't be made or written to.
  explicit DiskManager(DiskManagerOptions options);
  ~DiskManager() override;

  const std::wstring& GetDataDirectory() override;
  bool ReserveSpace(unsigned reserved, std::uint64_t bytes) override;
  void ReleaseSpace(unsigned reserved, std::uint64_t bytes) override;

  // For reservations from now on. Both as in the options.
  void SetLimits(std::uint64_t quota, std::uint64_t keepFree);

  std::uint64_t GetUsedSpace() const;
  std::uint64_t GetQuota() const;
  std::uint64_t GetKeepFree() const;

 private:
  const std::wstring m_dataDirectory;
  mutable std::mutex m_lock;
  // Guarded by m_lock:
  std::uint64_t m_quota;
  std::uint64_t m_keepFree;
  std::uint64_t m_used = 0;
};

}  // namespace WindowsAgentCommon
