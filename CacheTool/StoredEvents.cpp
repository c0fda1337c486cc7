#include "CacheTool/StoredEvents.h"

#include <array>
#include <fstream>
#include <string>

#include "Agent/PathText.h"
#include "CacheTool/ChunkFile.h"
#include "CacheTool/EventText.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

using OrloAgent::ToText;

namespace {

// Lines of JSON hold no zero byte, and the first eight bytes of a chunk hold one: in the count or
// in the length of the first head.
bool IsJson(std::ifstream& stream) {
  std::array<char, 8> beginning{};
  stream.read(beginning.data(), beginning.size());
  const std::string_view bytes(beginning.data(), static_cast<std::size_t>(stream.gcount()));
  stream.clear();
  stream.seekg(0);
  return !bytes.empty() && bytes.find('\0') == std::string_view::npos;
}

std::uint64_t ReadLines(std::ifstream& stream, const std::filesystem::path& file,
                        const std::function<void(const StoredEvent&)>& take) {
  std::uint64_t number = 0;
  std::uint64_t events = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) {
      continue;
    }
    try {
      const OwnedEvent event = EventFromJson(line);
      take({event.head, event.payload});
    } catch (const ToolError& error) {
      throw ToolError(ToText(file) + ", line " + std::to_string(number) + ": " + error.what());
    }
    ++events;
  }
  if (stream.bad()) {
    throw ToolError(ToText(file) + " can't be read to its end");
  }
  return events;
}

}  // namespace

StoredFile ForEachStoredEvent(const std::filesystem::path& file, const CheckOptions& options,
                              bool salvage, const std::function<void(const StoredEvent&)>& take) {
  {
    std::ifstream stream(file, std::ios::binary);
    if (stream && IsJson(stream)) {
      return {ReadLines(stream, file, take), ""};
    }
  }
  const ChunkContents contents = ReadChunkFile(file, options);
  if (!contents.IsHealthy() && !salvage) {
    throw ToolError(ToText(file) + " is damaged: " + DescribeFindings(contents) +
                        "; with --salvage its readable part is taken",
                    kDamage);
  }
  ForEachReadableEvent(contents, [&](const StoredEvent& event, std::uint64_t) { take(event); });
  return {contents.report.readable, DescribeFindings(contents)};
}

}  // namespace OrloCacheTool
