#include "tests/CacheTool/CacheFiles.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace OrloCacheTool {

namespace {

std::string FourBytes(std::size_t value) {
  std::string bytes;
  for (int i = 0; i < 4; ++i) {
    bytes += static_cast<char>(value >> (8 * i));
  }
  return bytes;
}

}  // namespace

std::string MakeHead(const std::string& source, unsigned char flags) {
  std::string head(1, '\x01');
  head += static_cast<char>(flags);
  // 2016-03-07T14:05:07.1234567Z
  std::uint64_t time = 131'018'331'071'234'567;
  for (int i = 0; i < 8; ++i, time >>= 8) {
    head += static_cast<char>(time);
  }
  head += static_cast<char>(source.size());
  head += static_cast<char>(source.size() >> 8);
  return head + source;
}

std::string MakeChunk(const std::vector<HeadAndPayload>& events) {
  std::string bytes = FourBytes(events.size());
  for (const auto& [head, payload] : events) {
    bytes += FourBytes(head.size()) + head + FourBytes(payload.size()) + payload;
  }
  bytes.resize((bytes.size() + 4095) / 4096 * 4096, '\0');
  return bytes;
}

std::string MakeChunkOf(const std::vector<std::string>& payloads) {
  std::vector<HeadAndPayload> events;
  for (const std::string& payload : payloads) {
    events.emplace_back(MakeHead(), payload);
  }
  return MakeChunk(events);
}

void WriteFile(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> ListTree(const std::filesystem::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    names.push_back(entry.path().lexically_relative(directory).generic_string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace OrloCacheTool
