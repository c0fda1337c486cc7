#include <limits>
#include <nlohmann/json.hpp>
#include <ostream>

#include "Agent/EventHeader.h"
#include "Agent/PathText.h"
#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkFile.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

using WindowsAgentCommon::Format;

namespace {

struct Shown {
  std::string name;
  std::string path;
  ChunkContents contents;
};

Shown Read(const ShowOptions& options) {
  if (options.chunk.empty()) {
    const auto file = OrloAgent::ToPath(options.place);
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored)) {
      throw ToolError(options.place + " is a directory; which of its chunks?", kWrongUsage);
    }
    return {options.place, options.place, ReadChunkFile(file, options.check)};
  }
  std::vector<std::string> skipped;
  const CachePlace place = FindCache(options.place, options.stream);
  const std::vector<ListedChunk> chunks = ListChunks(place.cache, skipped);
  const ListedChunk& chunk = FindChunk(chunks, options.chunk);
  Shown shown{chunk.GetName(), OrloAgent::ToText(chunk.path), ReadChunkFile(chunk, options.check)};
  if (!shown.contents.error.empty()) {
    throw ToolError(shown.path + " can't be read: " + shown.contents.error,
                    shown.contents.isGone ? kFailed : kDamage);
  }
  return shown;
}

std::string DescribeHead(const StoredEvent& event) {
  const auto header = OrloAgent::ParseEventHeader(event.head);
  if (!header) {
    return "(unknown head)";
  }
  std::string text =
      FormatReceiveTime(header->receiveTime) + " " + ToPrintable(header->DescribeSource());
  if ((header->flags & OrloAgent::EventFlags::kCut) != 0) {
    text += " cut";
  }
  if ((header->flags & OrloAgent::EventFlags::kNoLineEnd) != 0) {
    text += " no-line-end";
  }
  return text;
}

void PrintText(const Shown& shown, const ShowOptions& options, std::ostream& out) {
  const ChunkReport& report = shown.contents.report;
  out << Format("chunk   %s\nfile    %s\nbytes   %d, of which events take %d\nevents  %d\n",
                ToPrintable(shown.name), ToPrintable(shown.path), shown.contents.bytes.size(),
                report.dataSize, report.count);
  if (!shown.contents.IsHealthy()) {
    out << "damage  " << DescribeFindings(shown.contents) << "\neffect  "
        << DescribeEffect(shown.contents) << '\n';
  }
  EventReader reader(shown.contents.bytes);
  while (const auto event = reader.Next()) {
    out << Format("\n%d  %s  head %d, payload %d bytes\n", reader.GetRead(), DescribeHead(*event),
                  event->head.size(), event->payload.size());
    const std::size_t limit =
        options.text ? std::numeric_limits<std::size_t>::max() : options.bytes;
    if (!event->payload.empty() && limit != 0) {
      out << "    " << ToPrintable(event->payload, limit) << '\n';
    }
  }
}

void PrintJson(const Shown& shown, std::ostream& out) {
  nlohmann::ordered_json document;
  document["chunk"] = ToPrintable(shown.name);
  document["file"] = ToPrintable(shown.path);
  document["bytes"] = shown.contents.bytes.size();
  document["used"] = shown.contents.report.dataSize;
  document["count"] = shown.contents.report.count;
  if (!shown.contents.IsHealthy()) {
    document["findings"] = DescribeFindings(shown.contents);
    document["effect"] = DescribeEffect(shown.contents);
  }
  document["events"] = nlohmann::ordered_json::array();
  EventReader reader(shown.contents.bytes);
  while (const auto event = reader.Next()) {
    nlohmann::ordered_json one = EventToJson(*event, shown.name, reader.GetRead());
    one.erase("chunk");
    document["events"].push_back(std::move(one));
  }
  out << document.dump(2) << '\n';
}

}  // namespace

ExitCode RunShow(const ShowOptions& options, std::ostream& out, std::ostream&) {
  const Shown shown = Read(options);
  if (options.json) {
    PrintJson(shown, out);
  } else {
    PrintText(shown, options, out);
  }
  return shown.contents.IsHealthy() ? kDone : kDamage;
}

}  // namespace OrloCacheTool
