#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>

#include "Agent/PathText.h"
#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkFile.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "CacheTool/Progress.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

using WindowsAgentCommon::Format;

namespace {

struct Line {
  ListedChunk chunk;
  std::uint64_t events = 0;
  const char* state = "plausible";
  std::string findings{};
};

Line MakeLine(ListedChunk chunk, const ChunkContents& contents, bool isBeingWritten) {
  Line line{std::move(chunk)};
  line.events = contents.report.count;
  if (contents.IsHealthy()) {
    return line;
  }
  line.state = isBeingWritten ? "being written" : contents.error.empty() ? "damaged" : "unreadable";
  line.findings = DescribeFindings(contents);
  return line;
}

std::string Pad(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size()), ' ');
  return text;
}

void PrintText(const std::vector<Line>& lines, std::ostream& out) {
  std::size_t width = 4;
  for (const Line& line : lines) {
    width = std::max(width, ToPrintable(line.chunk.GetName()).size());
  }
  out << Format("%-20s  %s  %12s  %10s  %s\n", "TIME", Pad("FILE", width), "BYTES", "EVENTS",
                "STATE");
  std::uint64_t bytes = 0;
  std::uint64_t events = 0;
  for (const Line& line : lines) {
    const std::string time = GetNamedTime(line.chunk);
    out << Format("%-20s  %s  %12d  %10d  %s%s\n", time.empty() ? "-" : time,
                  Pad(ToPrintable(line.chunk.GetName()), width), line.chunk.size, line.events,
                  line.state, line.findings.empty() ? "" : ": " + line.findings);
    bytes += line.chunk.size;
    events += line.events;
  }
  out << Count(lines.size(), "chunk") << ", " << Count(events, "event") << ", "
      << Count(bytes, "byte") << '\n';
}

void PrintJson(const std::string& cache, const std::vector<Line>& lines, std::ostream& out) {
  nlohmann::ordered_json document;
  document["cache"] = cache;
  document["chunks"] = nlohmann::ordered_json::array();
  for (const Line& line : lines) {
    nlohmann::ordered_json one;
    one["chunk"] = ToPrintable(line.chunk.GetName());
    one["time"] = GetNamedTime(line.chunk);
    one["bytes"] = line.chunk.size;
    one["events"] = line.events;
    one["state"] = line.state;
    if (!line.findings.empty()) {
      one["findings"] = line.findings;
    }
    document["chunks"].push_back(std::move(one));
  }
  out << document.dump(2) << '\n';
}

}  // namespace

ExitCode RunList(const ListOptions& options, std::ostream& out, std::ostream& messages) {
  const CachePlace place = FindCache(options.place, options.stream);
  std::vector<std::string> skipped;
  std::vector<ListedChunk> chunks = ListChunks(place.cache, skipped);
  std::vector<Line> lines;
  bool isDamaged = !skipped.empty();
  {
    Progress progress("Listing", chunks.size());
    for (ListedChunk& chunk : chunks) {
      bool isBeingWritten = false;
      const ChunkContents contents = GlanceAtChunkFile(chunk, options.check, isBeingWritten);
      progress.Add(1);
      if (!contents.isGone) {
        isDamaged = isDamaged || (!contents.IsHealthy() && !isBeingWritten);
        lines.push_back(MakeLine(std::move(chunk), contents, isBeingWritten));
      }
    }
  }
  if (options.json) {
    PrintJson(ToPrintable(OrloAgent::ToText(place.cache)), lines, out);
  } else {
    PrintText(lines, out);
  }
  for (const std::string& minute : skipped) {
    messages << "orlo-cache: " << ToPrintable(minute)
             << " can't be listed to its end; an agent passes over what is missing here\n";
  }
  return isDamaged ? kDamage : kDone;
}

}  // namespace OrloCacheTool
