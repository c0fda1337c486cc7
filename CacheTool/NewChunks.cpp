#include "CacheTool/NewChunks.h"

#include <algorithm>

#include "Agent/DiskSync.h"
#include "Agent/PathText.h"
#include "CacheTool/NewFile.h"
#include "CacheTool/System.h"
#include "CacheTool/ToolError.h"
#include "Platform/Windows.h"
#include "StoreAndForward/ChunkFormat.h"
#include "StoreAndForward/ChunkNames.h"
#include "WindowsAgentCommon/MessageBlocks.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToPath;
using OrloAgent::ToText;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

constexpr std::size_t kDigits = 6;
// Of the two blocks of an event.
constexpr std::uint64_t kLengths = 8;
constexpr std::uint64_t kLargestChunk = 0xffffffff;

MessageBlockPtr MakeBlock(std::string_view bytes) {
  ACE_Message_Block* created = nullptr;
  if (WindowsAgentCommon::CreateDataMessageBlock(bytes.size(), created) != 0) {
    throw ToolError("There is no memory for an event of " + std::to_string(bytes.size()) +
                    " bytes");
  }
  MessageBlockPtr block(created);
  block->copy(bytes.data(), bytes.size());
  return block;
}

void Rename(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::rename(from, to, error);
  if (error) {
    throw ToolError(ToText(from) + " can't be renamed: " + error.message());
  }
}

void SyncNames(const fs::path& directory) {
  if (const std::error_code error = OrloAgent::SyncDirectory(directory)) {
    throw ToolError(ToText(directory) + " can't be brought to the disk: " + error.message());
  }
}

}  // namespace

std::string NameBehind(const std::string& file) {
  const std::size_t dash = file.rfind('-');
  if (dash != std::string::npos && file.size() - dash - 1 == kDigits) {
    std::string number = file.substr(dash + 1);
    const bool isNumber = std::all_of(number.begin(), number.end(), [](char character) {
      return character >= '0' && character <= '9';
    });
    if (isNumber && number != std::string(kDigits, '9')) {
      return file.substr(0, dash) + WindowsAgentCommon::Format("-%06d", std::stoul(number) + 1);
    }
  }
  return file + "-000001";
}

NewChunks::NewChunks(CachePlace place, const std::optional<ListedChunk>& last,
                     std::uint64_t chunkSize)
    : m_place(std::move(place)), m_chunkSize(chunkSize), m_pageSize(GetPageSize()) {
  if (last) {
    m_minute = last->minute;
    m_lastFile = last->file;
  } else {
    const auto now = OrloStoreAndForward::MakeChunkName(_time64(nullptr));
    m_minute = WindowsAgentCommon::ToUtf8(now.minute);
    m_lastFile = WindowsAgentCommon::ToUtf8(now.second);
  }
  m_directory = m_place.cache / ToPath(m_minute);
}

NewChunks::~NewChunks() {
  try {
    const OwnersRights rights(m_place);
    std::error_code ignored;
    for (const Unnamed& chunk : m_unnamed) {
      fs::remove(chunk.written, ignored);
    }
    if (m_madeDirectory) {
      // Not if there is a chunk in it.
      fs::remove(m_directory, ignored);
    }
  } catch (const ToolError&) {
    // A stage does not see them, and the next one that is named so removes them.
  }
}

void NewChunks::Add(const StoredEvent& event) {
  const std::uint64_t size = kLengths + event.head.size() + event.payload.size();
  if (!m_events.empty() && m_gathered + size > m_chunkSize) {
    WriteChunk();
  }
  MessageBlockPtr block = MakeBlock(event.head);
  block->cont(MakeBlock(event.payload).release());
  m_events.push_back(std::move(block));
  m_gathered += size;
}

void NewChunks::WriteChunk() {
  std::vector<ACE_Message_Block*> events;
  for (const MessageBlockPtr& event : m_events) {
    events.push_back(event.get());
  }
  const std::uint64_t size =
      OrloStoreAndForward::RoundUpToPage(OrloStoreAndForward::ChunkDataSize(events), m_pageSize);
  if (size > kLargestChunk) {
    throw ToolError("An event is too large for a chunk");
  }
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  // Writing them down releases them.
  std::for_each(m_events.begin(), m_events.end(), [](MessageBlockPtr& event) { event.release(); });
  m_events.clear();
  m_gathered = 0;
  OrloStoreAndForward::WriteChunk(events, bytes.data());

  const OwnersRights rights(m_place);
  std::error_code error;
  m_madeDirectory = fs::create_directory(m_directory, error) || m_madeDirectory;
  if (error) {
    throw ToolError(ToText(m_directory) + " can't be made: " + error.message());
  }
  m_lastFile = NameBehind(m_lastFile);
  const fs::path path = m_directory / ToPath(m_lastFile + ".new");
  // Left by one that was killed.
  fs::remove(path, error);
  WriteNewFile(path, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  m_unnamed.push_back({path, m_lastFile});
}

void NewChunks::TakeBack(std::size_t count) {
  for (std::size_t done = 0; done < count; ++done) {
    std::error_code ignored;
    fs::remove(m_directory / ToPath(m_unnamed[done].file), ignored);
  }
}

std::vector<std::string> NewChunks::Finish() {
  if (!m_events.empty()) {
    WriteChunk();
  }
  if (m_unnamed.empty()) {
    return {};
  }
  const OwnersRights rights(m_place);
  std::vector<std::string> names;
  try {
    for (const Unnamed& chunk : m_unnamed) {
      Rename(chunk.written, m_directory / ToPath(chunk.file));
      names.push_back(m_minute + "/" + chunk.file);
    }
    SyncNames(m_directory);
    // Also if the minute was there: an agent may have made it a moment ago.
    SyncNames(m_place.cache);
  } catch (const ToolError&) {
    TakeBack(names.size());
    throw;
  }
  m_unnamed.clear();
  m_madeDirectory = false;
  return names;
}

}  // namespace OrloCacheTool
