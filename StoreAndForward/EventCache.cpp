#include "StoreAndForward/EventCache.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Platform/Windows.h"
#include "StoreAndForward/ChunkFormat.h"
#include "StoreAndForward/ChunkNames.h"
#include "WindowsAgentCommon/Directories.h"
#include "WindowsAgentCommon/DiskManager.h"

namespace OrloStoreAndForward {

using WindowsAgentCommon::IDiskManager;

namespace {

IDiskManager* FindDiskManager() {
  return dynamic_cast<IDiskManager*>(
      WindowsAgentCommon::_getService(IDiskManager::GetServiceName()));
}

std::uint32_t QueryPageSize() {
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  return system.dwPageSize;
}

struct ListedFile {
  std::wstring name;
  std::uint64_t size;
};

// Every entry that the pattern lists, but for "." and "..". Empty when nothing can be listed.
std::vector<ListedFile> ListFiles(const std::wstring& pattern) {
  std::vector<ListedFile> files;
  WIN32_FIND_DATAW found{};
  const HANDLE listing = FindFirstFileW(pattern.c_str(), &found);
  if (listing == INVALID_HANDLE_VALUE) {
    return files;
  }
  do {
    const std::wstring name = found.cFileName;
    if (name != L"." && name != L"..") {
      files.push_back(
          {name, static_cast<std::uint64_t>(found.nFileSizeHigh) << 32 | found.nFileSizeLow});
    }
  } while (FindNextFileW(listing, &found) != FALSE);
  FindClose(listing);
  std::sort(files.begin(), files.end(), [](const ListedFile& left, const ListedFile& right) {
    return left.name == right.name ? left.size < right.size
                                   : NameSortsBefore(left.name, right.name);
  });
  return files;
}

}  // namespace

EventCache::EventCache(const std::wstring& cacheDirectory)
    : m_cacheDirectory(cacheDirectory), m_pageSize(QueryPageSize()) {
  FindChunksOfEarlierRuns();
}

EventCache::~EventCache() = default;

void EventCache::FindChunksOfEarlierRuns() {
  for (const ListedFile& minute : ListFiles(MakeListingPattern(m_cacheDirectory))) {
    const std::wstring directory = MakeMinuteDirectory(m_cacheDirectory, minute.name);
    for (ListedFile& chunk : ListFiles(m_cacheDirectory + L"\\" + minute.name + L"\\*.")) {
      m_queue.push_back({directory, std::move(chunk.name), chunk.size});
    }
  }
}

bool EventCache::Push(std::vector<ACE_Message_Block*>& events) {
  const ChunkName name = MakeChunkName(_time64(nullptr));
  ChunkEntry entry{MakeMinuteDirectory(m_cacheDirectory, name.minute), name.second, 0};

  bool createdDirectory = false;
  if (!PrepareMinuteDirectory(entry.directory, createdDirectory)) {
    return false;
  }
  if (!WriteChunkFile(entry.directory + entry.fileName, events, entry.size)) {
    if (createdDirectory) {
      RemoveDirectoryW(entry.directory.c_str());
    }
    return false;
  }
  m_queue.push_back(std::move(entry));
  return true;
}

bool EventCache::PrepareMinuteDirectory(const std::wstring& directory, bool& created) const {
  bool isDirectory = false;
  const std::uint32_t error = WindowsAgentCommon::IsDirectory(directory, isDirectory);
  if (isDirectory && error == 0) {
    return true;
  }
  if (isDirectory || error != ERROR_FILE_NOT_FOUND) {
    return false;
  }
  created = CreateDirectoryW(directory.c_str(), nullptr) != FALSE;
  // A failure without an error counts as a directory that exists: it is not this push's to remove.
  return created || GetLastError() == ERROR_SUCCESS;
}

bool EventCache::WriteChunkFile(const std::wstring& path, std::vector<ACE_Message_Block*>& events,
                                std::uint64_t& size) {
  const std::uint64_t paddedSize = RoundUpToPage(ChunkDataSize(events), m_pageSize);
  IDiskManager* const diskManager = FindDiskManager();
  if (diskManager != nullptr && !diskManager->ReserveSpace(0, paddedSize)) {
    return false;
  }
  if (m_buffer.IsNull() || paddedSize > m_bufferCapacity) {
    if (!m_buffer.Grow(paddedSize)) {
      if (diskManager != nullptr) {
        diskManager->ReleaseSpace(0, paddedSize);
      }
      return false;
    }
    m_bufferCapacity = paddedSize;
  }

  // From here on the events live in the buffer only, and the vector must not list them any more,
  // whatever becomes of the file.
  const std::uint32_t end = WriteChunk(events, m_buffer.Data());
  events.clear();
  const auto written = static_cast<std::uint32_t>(paddedSize);
  if (end < written) {
    std::memset(m_buffer.Data() + end, 0, written - end);
  }
  m_buffer.SetWritten(written);

  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return false;
  }
  DWORD writtenBytes = 0;
  WriteFile(file, m_buffer.Data(), written, &writtenBytes, nullptr);
  CloseHandle(file);
  size = paddedSize;
  return true;
}

bool EventCache::Front(std::vector<ACE_Message_Block*>& events) {
  events.clear();
  const ChunkEntry& entry = m_queue.front();
  const std::wstring path = entry.directory + entry.fileName;
  const HANDLE file =
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                  FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_READONLY, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return false;
  }
  if (m_buffer.IsNull() || entry.size > m_bufferCapacity) {
    if (!m_buffer.Grow(RoundUpToPage(entry.size, m_pageSize))) {
      CloseHandle(file);
      return false;
    }
    m_bufferCapacity = entry.size;
  }
  DWORD readBytes = 0;
  const BOOL read =
      ReadFile(file, m_buffer.Data(), static_cast<DWORD>(entry.size), &readBytes, nullptr);
  CloseHandle(file);
  m_buffer.SetWritten(readBytes);
  return read != FALSE && ReadChunk(m_buffer.Data(), m_buffer.Written(), events);
}

void EventCache::Pop() {
  const ChunkEntry& entry = m_queue.front();
  _wunlink((entry.directory + entry.fileName).c_str());
  if (IDiskManager* const diskManager = FindDiskManager()) {
    diskManager->ReleaseSpace(0, entry.size);
  }
  bool isEmpty = false;
  WindowsAgentCommon::IsDirectoryEmpty(entry.directory, isEmpty);
  if (isEmpty) {
    RemoveDirectoryW(entry.directory.c_str());
  }
  m_queue.pop_front();
}

bool EventCache::Empty() const { return m_queue.empty(); }

std::uint32_t CreateEventCache(const std::wstring& streamName, std::shared_ptr<EventCache>& cache) {
  IDiskManager* const diskManager = FindDiskManager();
  if (diskManager == nullptr) {
    return ERROR_NOT_SUPPORTED;
  }
  const std::wstring directory = MakeCacheDirectory(diskManager->GetDataDirectory(), streamName);
  const std::uint32_t error = WindowsAgentCommon::CreateDirectoryRecursive(directory);
  if (error != 0) {
    return error;
  }
  cache = std::make_shared<EventCache>(directory);
  return 0;
}

}  // namespace OrloStoreAndForward
