#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "CacheTool/ChunkCheck.h"
#include "CacheTool/ChunkListing.h"

namespace OrloCacheTool {

// A chunk file as it was found.
struct ChunkContents {
  // The agent has delivered and removed it since it was listed.
  bool isGone = false;
  // Why it can't be opened or read; empty if it can.
  std::string error;
  // Of a file of 4 GiB or more, nothing.
  std::string bytes;
  ChunkReport report;

  bool IsHealthy() const { return error.empty() && report.IsHealthy(); }
};

// Opened so that an agent may open, replace and remove the file all the while, and closed at once.
//
// A stage makes a file and writes it with one call, so a file can be met before all of it is there:
// one that was changed in the last seconds and looks damaged is looked at again for up to two
// seconds, before that is believed.
ChunkContents ReadChunkFile(const ListedChunk& chunk, const CheckOptions& options);

// The same for a file outside a cache. Throws ToolError if it can't be read.
ChunkContents ReadChunkFile(const std::filesystem::path& file, const CheckOptions& options);

// What can be told from the file's size, which is brought up to date in `chunk`, and first bytes.
// `isBeingWritten` is set where a finding may be due to that.
ChunkContents GlanceAtChunkFile(ListedChunk& chunk, const CheckOptions& options,
                                bool& isBeingWritten);

// Gives the events up to the last one that can be trusted to `take`, in order, each with its
// number, which counts from 1. Their bytes are those of `contents`. None of a file that can't be
// read.
void ForEachReadableEvent(const ChunkContents& contents,
                          const std::function<void(const StoredEvent&, std::uint64_t)>& take);

// All that is to be said against the chunk, joined; empty for a healthy one.
std::string DescribeFindings(const ChunkContents& contents);

// What an agent would do with it, as a sentence without the full stop.
std::string DescribeEffect(const ChunkContents& contents);

}  // namespace OrloCacheTool
