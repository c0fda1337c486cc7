#include "CacheTool/ChunkFile.h"

#include <algorithm>
#include <memory>

#include "Agent/PathText.h"
#include "CacheTool/LastChange.h"
#include "CacheTool/ToolError.h"
#include "Platform/Error.h"
#include "Platform/Windows.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

namespace {

constexpr std::uint64_t kLargest = 0xffffffff;
constexpr std::uint64_t kBeginning = 4;
// Read at once.
constexpr std::size_t kPiece = std::size_t{1} << 20;

struct HandleCloser {
  void operator()(void* file) const { CloseHandle(file); }
};
using FileHandle = std::unique_ptr<void, HandleCloser>;

ChunkContents Fail(DWORD error) {
  ChunkContents contents;
  contents.isGone = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
  contents.error = Platform::ErrorText(error);
  return contents;
}

// At most `limit` bytes.
ChunkContents Read(const std::filesystem::path& path, std::uint64_t limit) {
  const std::wstring name = WindowsAgentCommon::ToWide(OrloAgent::ToText(path));
  HANDLE const opened = CreateFileW(
      name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
      OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    return Fail(GetLastError());
  }
  const FileHandle file(opened);
  ChunkContents contents;
  while (contents.bytes.size() < limit) {
    const std::size_t before = contents.bytes.size();
    const auto wanted =
        static_cast<DWORD>(std::min<std::uint64_t>(kPiece, limit - contents.bytes.size()));
    contents.bytes.resize(before + wanted);
    DWORD read = 0;
    if (ReadFile(file.get(), contents.bytes.data() + before, wanted, &read, nullptr) == FALSE) {
      return Fail(GetLastError());
    }
    contents.bytes.resize(before + read);
    if (read == 0) {
      break;
    }
  }
  return contents;
}

ChunkContents ReadAndCheck(const std::filesystem::path& path, const CheckOptions& options) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  if (!error && size > kLargest) {
    ChunkContents contents;
    contents.report = GlanceAtChunk({}, size, options);
    return contents;
  }
  try {
    ChunkContents contents = Read(path, kLargest);
    if (contents.error.empty()) {
      contents.report = CheckChunk(contents.bytes, options);
    }
    return contents;
  } catch (const std::bad_alloc&) {
    throw ToolError("There is no memory for the " + std::to_string(size) + " bytes of " +
                    OrloAgent::ToText(path));
  }
}

ChunkContents RefuseDirectory() {
  ChunkContents contents;
  contents.error = "it is a directory";
  return contents;
}

}  // namespace

ChunkContents ReadChunkFile(const ListedChunk& chunk, const CheckOptions& options) {
  if (chunk.isDirectory) {
    return RefuseDirectory();
  }
  SecondLooks looks;
  for (;;) {
    ChunkContents contents = ReadAndCheck(chunk.path, options);
    if (contents.isGone || contents.IsHealthy()) {
      return contents;
    }
    const LastChange change = GetLastChange(chunk.path);
    if (change == LastChange::Gone) {
      return Fail(ERROR_FILE_NOT_FOUND);
    }
    if (!looks.Wait(change)) {
      return contents;
    }
  }
}

ChunkContents ReadChunkFile(const std::filesystem::path& file, const CheckOptions& options) {
  ChunkContents contents = ReadAndCheck(file, options);
  if (!contents.error.empty()) {
    throw ToolError(OrloAgent::ToText(file) + " can't be read: " + contents.error);
  }
  return contents;
}

ChunkContents GlanceAtChunkFile(ListedChunk& chunk, const CheckOptions& options,
                                bool& isBeingWritten) {
  isBeingWritten = false;
  if (chunk.isDirectory) {
    return RefuseDirectory();
  }
  ChunkContents contents = Read(chunk.path, kBeginning);
  if (contents.error.empty()) {
    // It may have grown since it was listed.
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(chunk.path, error);
    chunk.size = error ? chunk.size : size;
    contents.report = GlanceAtChunk(contents.bytes, chunk.size, options);
  }
  if (!contents.isGone && !contents.IsHealthy()) {
    const LastChange change = GetLastChange(chunk.path);
    if (change == LastChange::Gone) {
      return Fail(ERROR_FILE_NOT_FOUND);
    }
    isBeingWritten = change == LastChange::Recent;
  }
  return contents;
}

void ForEachReadableEvent(const ChunkContents& contents,
                          const std::function<void(const StoredEvent&, std::uint64_t)>& take) {
  EventReader reader(contents.bytes);
  while (reader.GetRead() < contents.report.readable) {
    const auto event = reader.Next();
    take(*event, reader.GetRead());
  }
}

std::string DescribeFindings(const ChunkContents& contents) {
  if (!contents.error.empty()) {
    return "it can't be read: " + contents.error;
  }
  std::string text;
  for (const FindingText& finding : contents.report.findings) {
    text += (text.empty() ? "" : "; ") + finding.text;
  }
  return text;
}

std::string DescribeEffect(const ChunkContents& contents) {
  if (!contents.error.empty()) {
    return "an agent that can't read it either delivers neither it nor anything behind it, until "
           "it is "
           "moved away and the agent started again";
  }
  return DescribeEffect(contents.report);
}

}  // namespace OrloCacheTool
