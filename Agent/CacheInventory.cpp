#include "Agent/CacheInventory.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>

namespace OrloAgent {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kCountSize = 4;
// An event takes at least the lengths of its two blocks.
constexpr std::uint64_t kSmallestEvent = 8;

// The stage lists only names without a dot.
bool IsListed(const fs::path& path) {
  return path.filename().native().find('.') == fs::path::string_type::npos;
}

// Nothing while the count is not written yet. A file that is no chunk does not claim more events
// than it has room for.
std::optional<std::uint64_t> ReadCount(const fs::path& file, std::uintmax_t size) {
  std::array<char, kCountSize> bytes{};
  std::ifstream stream(file, std::ios::binary);
  if (size < kCountSize || !stream.read(bytes.data(), bytes.size())) {
    return std::nullopt;
  }
  std::uint64_t count = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) {
    count = (count << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return std::min<std::uint64_t>(count, (size - kCountSize) / kSmallestEvent);
}

}  // namespace

CacheInventory::CacheInventory(fs::path cacheDirectory) : m_directory(std::move(cacheDirectory)) {}

CacheContents CacheInventory::Look() {
  for (auto& [path, chunk] : m_chunks) {
    chunk.seen = false;
  }
  CacheContents contents;
  std::error_code error;
  fs::directory_iterator minute(m_directory, error);
  for (; !error && minute != fs::directory_iterator(); minute.increment(error)) {
    if (IsListed(minute->path())) {
      LookInto(minute->path(), contents);
    }
  }
  std::erase_if(m_chunks, [](const auto& entry) { return !entry.second.seen; });
  return contents;
}

void CacheInventory::LookInto(const fs::path& minuteDirectory, CacheContents& contents) {
  std::error_code error;
  fs::directory_iterator file(minuteDirectory, error);
  for (; !error && file != fs::directory_iterator(); file.increment(error)) {
    std::error_code gone;
    const std::uintmax_t size = file->file_size(gone);
    const fs::file_time_type written = gone ? fs::file_time_type() : file->last_write_time(gone);
    if (gone || !IsListed(file->path())) {
      continue;
    }
    Chunk& chunk = m_chunks[file->path()];
    if (chunk.written != written || chunk.size != size) {
      const auto events = ReadCount(file->path(), size);
      chunk.events = events.value_or(0);
      chunk.written = events ? written : fs::file_time_type();
      chunk.size = size;
    }
    chunk.seen = true;
    contents.events += chunk.events;
    ++contents.chunks;
    contents.bytes += size;
    contents.oldest = contents.oldest ? std::min(*contents.oldest, written) : written;
  }
}

}  // namespace OrloAgent
