#include <nlohmann/json.hpp>
#include <ostream>

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

struct Verdict {
  std::string chunk;
  std::uint64_t events = 0;
  std::string findings;
  std::string effect;
};

struct Verification {
  std::uint64_t chunks = 0;
  std::uint64_t events = 0;
  std::uint64_t bytes = 0;
  std::uint64_t damaged = 0;
  std::vector<Verdict> verdicts;
  std::vector<std::string> skipped;
};

Verification Verify(const VerifyOptions& options) {
  Verification result;
  const CachePlace place = FindCache(options.place, options.stream);
  const std::vector<ListedChunk> chunks = ListChunks(place.cache, result.skipped);
  std::uint64_t total = 0;
  for (const ListedChunk& chunk : chunks) {
    total += chunk.size;
  }
  Progress progress("Verifying", total);
  for (const ListedChunk& chunk : chunks) {
    const ChunkContents contents = ReadChunkFile(chunk, options.check);
    progress.Add(chunk.size);
    if (contents.isGone) {
      continue;
    }
    ++result.chunks;
    result.events += contents.report.complete;
    result.bytes += chunk.size;
    const bool isHealthy = contents.IsHealthy();
    result.damaged += isHealthy ? 0 : 1;
    if (!isHealthy || options.all) {
      result.verdicts.push_back({ToPrintable(chunk.GetName()), contents.report.complete,
                                 DescribeFindings(contents), DescribeEffect(contents)});
    }
  }
  return result;
}

void PrintText(const Verification& result, std::ostream& out) {
  for (const Verdict& verdict : result.verdicts) {
    if (verdict.findings.empty()) {
      out << Format("%s: healthy, %s\n", verdict.chunk, Count(verdict.events, "event"));
    } else {
      out << Format("%s: damaged: %s; %s\n", verdict.chunk, verdict.findings, verdict.effect);
    }
  }
  for (const std::string& minute : result.skipped) {
    out << Format("%s: can't be listed to its end; an agent passes over what is missing here\n",
                  ToPrintable(minute));
  }
  out << Count(result.chunks, "chunk") << ", " << Count(result.events, "event") << ", "
      << Count(result.bytes, "byte") << "; " << result.damaged << " damaged\n";
}

void PrintJson(const Verification& result, std::ostream& out) {
  nlohmann::ordered_json document;
  document["chunks"] = result.chunks;
  document["events"] = result.events;
  document["bytes"] = result.bytes;
  document["damaged"] = result.damaged;
  document["verdicts"] = nlohmann::ordered_json::array();
  for (const Verdict& verdict : result.verdicts) {
    nlohmann::ordered_json one;
    one["chunk"] = verdict.chunk;
    one["healthy"] = verdict.findings.empty();
    one["events"] = verdict.events;
    if (!verdict.findings.empty()) {
      one["findings"] = verdict.findings;
    }
    one["effect"] = verdict.effect;
    document["verdicts"].push_back(std::move(one));
  }
  document["not_listed"] = nlohmann::ordered_json::array();
  for (const std::string& minute : result.skipped) {
    document["not_listed"].push_back(ToPrintable(minute));
  }
  out << document.dump(2) << '\n';
}

}  // namespace

ExitCode RunVerify(const VerifyOptions& options, std::ostream& out, std::ostream&) {
  const Verification result = Verify(options);
  if (options.json) {
    PrintJson(result, out);
  } else {
    PrintText(result, out);
  }
  return result.damaged == 0 && result.skipped.empty() ? kDone : kDamage;
}

}  // namespace OrloCacheTool
