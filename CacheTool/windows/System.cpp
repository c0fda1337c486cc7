#include "CacheTool/System.h"

#include <io.h>

#include <algorithm>
#include <cstdio>

#include "Agent/PathText.h"
#include "CacheTool/ToolError.h"
#include "Platform/Error.h"
#include "Platform/Windows.h"

namespace OrloCacheTool {

namespace {

constexpr std::size_t kPiece = std::size_t{1} << 20;

bool WriteAll(HANDLE file, std::string_view bytes) {
  while (!bytes.empty()) {
    DWORD written = 0;
    if (WriteFile(file, bytes.data(), static_cast<DWORD>(std::min(kPiece, bytes.size())), &written,
                  nullptr) == FALSE) {
      return false;
    }
    bytes.remove_prefix(written);
  }
  return FlushFileBuffers(file) != FALSE;
}

}  // namespace

bool IsErrorTerminal() { return _isatty(_fileno(stderr)) != 0; }

void GiveToOwnerOf(const std::filesystem::path&, const std::filesystem::path&) {}

void WriteNewFile(const std::filesystem::path& path, std::string_view bytes,
                  const std::filesystem::path&) {
  HANDLE const file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    throw ToolError(OrloAgent::ToText(path) +
                    " can't be made: " + Platform::ErrorText(GetLastError()));
  }
  const bool isWritten = WriteAll(file, bytes);
  const DWORD error = isWritten ? ERROR_SUCCESS : GetLastError();
  CloseHandle(file);
  if (!isWritten) {
    _wunlink(path.c_str());
    throw ToolError(OrloAgent::ToText(path) + " can't be written: " + Platform::ErrorText(error));
  }
}

void SyncDirectory(const std::filesystem::path&) {}

}  // namespace OrloCacheTool
