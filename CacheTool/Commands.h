#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "CacheTool/ChunkCheck.h"
#include "CacheTool/ToolError.h"

// What the program does, a function for each sub-command. Results go to `out`; what went wrong on
// the way, to `messages`. They return the program's exit code and throw ToolError. Those that only
// read may run at any time; an agent may deliver and add chunks meanwhile.
namespace OrloCacheTool {

// What all commands have in common. See FindCache about the first two.
struct CommonOptions {
  std::string place;
  std::string stream;
  CheckOptions check;
  // One JSON document instead of text.
  bool json = false;
};

// Chunks in the order in which they will be delivered. A glance at each: size and count.
struct ListOptions : CommonOptions {};
ExitCode RunList(const ListOptions& options, std::ostream& out, std::ostream& messages);

struct ShowOptions : CommonOptions {
  // As FindChunk takes it. Empty: `place` is a file outside a cache.
  std::string chunk;
  // Whole payloads instead of their first bytes.
  bool text = false;
  // How many of the first bytes.
  std::size_t bytes = 60;
};
ExitCode RunShow(const ShowOptions& options, std::ostream& out, std::ostream& messages);

struct VerifyOptions : CommonOptions {
  // Names healthy chunks, too.
  bool all = false;
};
ExitCode RunVerify(const VerifyOptions& options, std::ostream& out, std::ostream& messages);

enum class ExportFormat { Json, Raw };

struct ExportOptions : CommonOptions {
  // Empty: all of them.
  std::vector<std::string> chunks;
  ExportFormat format = ExportFormat::Json;
  bool salvage = false;
};
ExitCode RunExport(const ExportOptions& options, std::ostream& out, std::ostream& messages);

// Puts events at the end of the cache. Only while no agent runs on it.
struct RequeueOptions : CommonOptions {
  std::vector<std::string> files;
  bool salvage = false;
  // The files, once all of their events are in the cache; not one that is damaged.
  bool removeFiles = false;
  // Of the events in one chunk, in bytes.
  std::uint64_t chunkSize = 4 * 1024 * 1024;
};
ExitCode RunRequeue(const RequeueOptions& options, std::ostream& out, std::ostream& messages);

// Moves chunks to the directory quarantine.d of the cache, with a note beside each. Only while no
// agent runs on it.
struct QuarantineOptions : CommonOptions {
  std::vector<std::string> chunks;
  // All that verify finds fault with.
  bool damaged = false;
  // Healthy ones, too.
  bool force = false;
};
ExitCode RunQuarantine(const QuarantineOptions& options, std::ostream& out, std::ostream& messages);

}  // namespace OrloCacheTool
