#include "Agent/AppendFile.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "Agent/PathText.h"
#include "Platform/Error.h"
#include "Platform/Windows.h"

namespace OrloAgent {

namespace {

// Everybody may read, rename and remove the file while it is open.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

HANDLE Handle(std::intptr_t file) { return reinterpret_cast<HANDLE>(file); }

const auto kNone = reinterpret_cast<std::intptr_t>(INVALID_HANDLE_VALUE);

std::intptr_t OpenToAppend(const std::filesystem::path& path, DWORD disposition) {
  return reinterpret_cast<std::intptr_t>(CreateFileW(path.c_str(), FILE_APPEND_DATA, kShareAll,
                                                     nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                                                     nullptr));
}

}  // namespace

AppendFile::AppendFile(const std::string& path) : m_path(path), m_file(kNone) {}

AppendFile::~AppendFile() { Close(); }

std::string AppendFile::Open() {
  const std::filesystem::path path = ToPath(m_path);
  if (path.has_parent_path()) {
    std::error_code ignored;  // the opening tells better what is wrong
    std::filesystem::create_directories(path.parent_path(), ignored);
  }
  m_file = OpenToAppend(path, OPEN_ALWAYS);
  return m_file == kNone ? Platform::ErrorText(GetLastError()) : std::string();
}

std::string AppendFile::OpenNew() {
  m_file = OpenToAppend(ToPath(m_path), CREATE_NEW);
  return m_file == kNone ? Platform::ErrorText(GetLastError()) : std::string();
}

bool AppendFile::IsOpen() const { return m_file != kNone; }

void AppendFile::Close() {
  if (m_file != kNone) {
    CloseHandle(Handle(m_file));
    m_file = kNone;
  }
}

bool AppendFile::IsStillThere() const {
  const HANDLE named = CreateFileW(ToPath(m_path).c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (named == INVALID_HANDLE_VALUE) {
    return false;
  }
  BY_HANDLE_FILE_INFORMATION there{};
  BY_HANDLE_FILE_INFORMATION ours{};
  const bool bKnown = GetFileInformationByHandle(named, &there) != FALSE &&
                      GetFileInformationByHandle(Handle(m_file), &ours) != FALSE;
  CloseHandle(named);
  return bKnown && there.dwVolumeSerialNumber == ours.dwVolumeSerialNumber &&
         there.nFileIndexHigh == ours.nFileIndexHigh && there.nFileIndexLow == ours.nFileIndexLow;
}

AppendFile::Written AppendFile::Write(std::string_view bytes) {
  constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;
  Written written;
  while (written.count < bytes.size()) {
    DWORD count = 0;
    const auto size = static_cast<DWORD>(std::min(bytes.size() - written.count, kMostAtOnce));
    const BOOL bWritten =
        WriteFile(Handle(m_file), bytes.data() + written.count, size, &count, nullptr);
    const DWORD error = bWritten ? ERROR_DISK_FULL : GetLastError();
    written.count += count;
    if (!bWritten || count == 0) {
      written.problem = Platform::ErrorText(error);
      break;
    }
  }
  return written;
}

}  // namespace OrloAgent
