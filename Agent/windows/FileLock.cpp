#include "Agent/FileLock.h"

#include <stdexcept>

#include "Agent/PathText.h"
#include "Platform/Error.h"
#include "Platform/Windows.h"

namespace OrloAgent {

// The file, open and shared with nobody.
struct FileLock::Lock {
  HANDLE file;
};

FileLock::FileLock(const std::filesystem::path& file) {
  const HANDLE handle = CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle != INVALID_HANDLE_VALUE) {
    m_lock = std::make_unique<Lock>(Lock{handle});
    return;
  }
  if (const DWORD error = GetLastError(); error != ERROR_SHARING_VIOLATION) {
    throw std::runtime_error(ToText(file) + " can't be written: " + Platform::ErrorText(error));
  }
}

FileLock::~FileLock() {
  if (m_lock) {
    CloseHandle(m_lock->file);
  }
}

}  // namespace OrloAgent
