#include "WindowsAgentCommon/DiskManager.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>
#include <vector>

#include "Platform/Windows.h"
#include "WindowsAgentCommon/Directories.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Text.h"

namespace WindowsAgentCommon {

namespace {

// Both systems take '/' as a separator; only one takes '\'.
std::filesystem::path ToFileSystemPath(std::wstring path) {
  std::replace(path.begin(), path.end(), L'\\', L'/');
  const std::string narrow = ToUtf8(path);
  return std::filesystem::path(std::u8string(narrow.begin(), narrow.end()));
}

std::string ToText(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

[[noreturn]] void ThrowUnusable(const std::wstring& directory, const char* what,
                                const std::string& reason) {
  throw InitializationException(
      "WindowsAgentCommon/DiskManager", "WindowsAgentCommon::DiskManager::DiskManager", __LINE__,
      Format("The data directory \"%s\" %s: %s", ToUtf8(directory), what, reason));
}

std::string DescribeError(DWORD error) {
  std::string text;
  GetLastErrorText(error, text);
  return Format("%s (error %u)", text, error);
}

void MakeDataDirectory(const std::wstring& directory) {
  const std::uint32_t error = CreateDirectoryRecursive(directory);
  if (error != ERROR_SUCCESS) {
    ThrowUnusable(directory, "can't be made", DescribeError(error));
  }
}

// Permissions don't tell everything (read-only file systems, quotas, a full disk): a file is
// really made.
void ProbeDataDirectory(const std::wstring& directory) {
  const std::wstring probe = directory + L".orlo-write-probe";
  const HANDLE file = CreateFileW(probe.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    ThrowUnusable(directory, "can't be written to", DescribeError(GetLastError()));
  }
  CloseHandle(file);
  // Another process may be probing the same directory and have deleted it already.
  if (_wunlink(probe.c_str()) != 0 && errno != ENOENT) {
    ThrowUnusable(directory, "does not let files be deleted",
                  std::generic_category().message(errno));
  }
}

// The sizes of all files below the directory. Files come and go while it is walked, and some
// directories may not be open to this process: what can't be asked counts as nothing. Symbolic
// links are not followed.
std::uint64_t MeasureUsedSpace(const std::filesystem::path& root) {
  std::uint64_t used = 0;
  std::vector<std::filesystem::path> pending{root};
  while (!pending.empty()) {
    const std::filesystem::path directory = std::move(pending.back());
    pending.pop_back();
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
      std::error_code entryError;
      const std::filesystem::file_status status = entry->symlink_status(entryError);
      if (entryError) {
        continue;
      }
      if (std::filesystem::is_directory(status)) {
        pending.push_back(entry->path());
      } else if (std::filesystem::is_regular_file(status)) {
        const std::uint64_t size = entry->file_size(entryError);
        used += entryError ? 0 : size;
      }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
      LogFacade::Warn(LoggerFactory::GetLog("Code.DiskManager"),
                      "The space used by \"%s\" can't be measured: %s. It counts as 0.",
                      ToText(directory), error.message());
    }
  }
  return used;
}

std::wstring WithTrailingSeparator(std::wstring directory) {
  // An empty name stays empty, and is refused; with a separator it would be the root directory.
  if (!directory.empty() && directory.back() != L'\\' && directory.back() != L'/') {
    directory += L'\\';
  }
  return directory;
}

}  // namespace

const std::string& IDiskManager::GetServiceName() {
  static const std::string name = "IDiskManager";
  return name;
}

DiskManager::DiskManager(DiskManagerOptions options)
    : m_dataDirectory(WithTrailingSeparator(std::move(options.dataDirectory))),
      m_quota(options.quota),
      m_keepFree(options.keepFree) {
  MakeDataDirectory(m_dataDirectory);
  ProbeDataDirectory(m_dataDirectory);
  m_used = MeasureUsedSpace(ToFileSystemPath(m_dataDirectory));
}

DiskManager::~DiskManager() = default;

const std::wstring& DiskManager::GetDataDirectory() { return m_dataDirectory; }

bool DiskManager::ReserveSpace(unsigned /*reserved*/, std::uint64_t bytes) {
  std::uint64_t keepFree = 0;
  {
    const std::lock_guard guard(m_lock);
    keepFree = m_keepFree;
  }
  // Asking the file system can take long, so it is asked without the lock.
  if (keepFree != 0) {
    std::error_code error;
    const std::uint64_t available =
        std::filesystem::space(ToFileSystemPath(m_dataDirectory), error).available;
    if (!error && (available < keepFree || available - keepFree < bytes)) {
      return false;
    }
  }
  const std::lock_guard guard(m_lock);
  const std::uint64_t limit = m_quota != 0 ? m_quota : std::numeric_limits<std::uint64_t>::max();
  if (m_used > limit || limit - m_used < bytes) {
    return false;
  }
  m_used += bytes;
  return true;
}

void DiskManager::ReleaseSpace(unsigned /*reserved*/, std::uint64_t bytes) {
  const std::lock_guard guard(m_lock);
  m_used -= std::min(m_used, bytes);
}

void DiskManager::SetLimits(std::uint64_t quota, std::uint64_t keepFree) {
  const std::lock_guard guard(m_lock);
  m_quota = quota;
  m_keepFree = keepFree;
}

std::uint64_t DiskManager::GetQuota() const {
  const std::lock_guard guard(m_lock);
  return m_quota;
}

std::uint64_t DiskManager::GetKeepFree() const {
  const std::lock_guard guard(m_lock);
  return m_keepFree;
}

std::uint64_t DiskManager::GetUsedSpace() const {
  const std::lock_guard guard(m_lock);
  return m_used;
}

}  // namespace WindowsAgentCommon
