#include "Agent/DiskSync.h"

#include "Platform/Windows.h"

namespace OrloAgent {

std::error_code SyncFile(const std::filesystem::path& file) {
  const HANDLE opened = CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    return {static_cast<int>(GetLastError()), std::system_category()};
  }
  const DWORD error = FlushFileBuffers(opened) != FALSE ? ERROR_SUCCESS : GetLastError();
  CloseHandle(opened);
  return {static_cast<int>(error), std::system_category()};
}

std::error_code SyncDirectory(const std::filesystem::path&) { return {}; }

}  // namespace OrloAgent
