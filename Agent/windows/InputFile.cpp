#include "Agent/InputFile.h"

#include <algorithm>
#include <limits>

#include "Platform/Windows.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

namespace {

std::optional<FileId> IdentifyFile(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION information{};
  if (!::GetFileInformationByHandle(file, &information) ||
      (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return std::nullopt;
  }
  return FileId{information.dwVolumeSerialNumber,
                (std::uint64_t{information.nFileIndexHigh} << 32) | information.nFileIndexLow};
}

// Whoever writes the file may go on, rename it and remove it.
HANDLE OpenShared(const std::filesystem::path& path) {
  return ::CreateFileW(path.c_str(), GENERIC_READ,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

}  // namespace

struct InputFile::Handle {
  explicit Handle(HANDLE opened) : file(opened) {}
  ~Handle() { ::CloseHandle(file); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const HANDLE file;
};

InputFile::InputFile(std::unique_ptr<Handle> handle, const FileId& id)
    : m_handle(std::move(handle)), m_id(id) {}

InputFile::~InputFile() = default;

std::unique_ptr<InputFile> InputFile::Open(const std::filesystem::path& path, std::string& error) {
  const HANDLE file = OpenShared(path);
  if (file == INVALID_HANDLE_VALUE) {
    WindowsAgentCommon::GetLastErrorText(::GetLastError(), error);
    return nullptr;
  }
  auto handle = std::make_unique<Handle>(file);
  const auto id = IdentifyFile(file);
  if (!id) {
    error = "it is no regular file";
    return nullptr;
  }
  return std::unique_ptr<InputFile>(new InputFile(std::move(handle), *id));
}

std::optional<std::uint64_t> InputFile::GetSize() const {
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(m_handle->file, &size)) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(size.QuadPart);
}

std::optional<std::size_t> InputFile::Read(std::uint64_t offset, char* buffer,
                                           std::size_t capacity) const {
  OVERLAPPED position{};
  position.Offset = static_cast<DWORD>(offset);
  position.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD count = 0;
  const auto wanted =
      static_cast<DWORD>(std::min<std::size_t>(capacity, std::numeric_limits<DWORD>::max()));
  if (!::ReadFile(m_handle->file, buffer, wanted, &count, &position) &&
      ::GetLastError() != ERROR_HANDLE_EOF) {
    return std::nullopt;
  }
  return count;
}

std::optional<FileId> FindFileId(const std::filesystem::path& path) {
  const HANDLE file = OpenShared(path);
  if (file == INVALID_HANDLE_VALUE) {
    return std::nullopt;
  }
  const auto id = IdentifyFile(file);
  ::CloseHandle(file);
  return id;
}

}  // namespace OrloAgent
