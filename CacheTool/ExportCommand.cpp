#include <nlohmann/json.hpp>
#include <ostream>

#include "Agent/EventHeader.h"
#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkFile.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "CacheTool/Progress.h"

namespace OrloCacheTool {

namespace {

std::vector<ListedChunk> Choose(const ExportOptions& options, const CachePlace& place,
                                std::vector<std::string>& skipped) {
  std::vector<ListedChunk> chunks = ListChunks(place.cache, skipped);
  if (options.chunks.empty()) {
    return chunks;
  }
  std::vector<ListedChunk> chosen;
  for (const std::string& name : options.chunks) {
    chosen.push_back(FindChunk(chunks, name));
  }
  return chosen;
}

// A line for each event, as the agent's text outputs write it.
void WriteRaw(const StoredEvent& event, std::ostream& out) {
  out.write(event.payload.data(), static_cast<std::streamsize>(event.payload.size()));
  const auto header = OrloAgent::ParseEventHeader(event.head);
  if (!header || (header->flags & OrloAgent::EventFlags::kNoLineEnd) == 0) {
    out << '\n';
  }
}

void WriteEvents(const ListedChunk& chunk, const ChunkContents& contents, ExportFormat format,
                 std::ostream& out) {
  ForEachReadableEvent(contents, [&](const StoredEvent& event, std::uint64_t number) {
    if (format == ExportFormat::Raw) {
      WriteRaw(event, out);
    } else {
      out << EventToJson(event, chunk.GetName(), number).dump() << '\n';
    }
  });
}

}  // namespace

ExitCode RunExport(const ExportOptions& options, std::ostream& out, std::ostream& messages) {
  std::vector<std::string> skipped;
  const std::vector<ListedChunk> chunks =
      Choose(options, FindCache(options.place, options.stream), skipped);
  std::uint64_t total = 0;
  for (const ListedChunk& chunk : chunks) {
    total += chunk.size;
  }
  bool isWhole = skipped.empty();
  for (const std::string& minute : skipped) {
    messages << "orlo-cache: " << ToPrintable(minute) << " can't be listed to its end\n";
  }
  Progress progress("Exporting", total);
  for (const ListedChunk& chunk : chunks) {
    const ChunkContents contents = ReadChunkFile(chunk, options.check);
    progress.Add(chunk.size);
    if (contents.isGone) {
      continue;
    }
    const bool isTaken = contents.IsHealthy() || (options.salvage && contents.error.empty());
    if (!contents.IsHealthy()) {
      isWhole = false;
      progress.Clear();
      messages << "orlo-cache: " << ToPrintable(chunk.GetName()) << " is damaged ("
               << DescribeFindings(contents) << "); "
               << (isTaken ? Count(contents.report.readable, "event") + " of it exported"
                           : "nothing of it is exported")
               << '\n';
    }
    if (isTaken) {
      WriteEvents(chunk, contents, options.format, out);
    }
    if (!out) {
      throw ToolError("The output can't be written");
    }
  }
  return isWhole ? kDone : kDamage;
}

}  // namespace OrloCacheTool
