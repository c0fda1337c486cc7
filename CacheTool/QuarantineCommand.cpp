#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

#include "Agent/PathText.h"
#include "CacheTool/CacheLock.h"
#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkFile.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "CacheTool/NewFile.h"
#include "CacheTool/Progress.h"
#include "CacheTool/System.h"
#include "Platform/Windows.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToPath;
using OrloAgent::ToText;
using WindowsAgentCommon::Format;

namespace {

// With a dot in it, a stage does not see it.
constexpr char kDirectory[] = "quarantine.d";
constexpr char kNoteEnding[] = ".txt";

std::string FormatNow() {
  SYSTEMTIME now{};
  GetSystemTime(&now);
  return Format("%04d-%02d-%02dT%02d:%02d:%02dZ", now.wYear, now.wMonth, now.wDay, now.wHour,
                now.wMinute, now.wSecond);
}

bool IsTaken(const fs::path& path) {
  std::error_code ignored;
  return fs::exists(fs::symlink_status(path, ignored));
}

fs::path NoteOf(const fs::path& target) { return ToPath(ToText(target) + kNoteEnding); }

// Where nothing is yet, nor beside it.
fs::path FindFreeName(const fs::path& directory, const ListedChunk& chunk) {
  const std::string name = chunk.minute + "_" + chunk.file;
  fs::path path = directory / ToPath(name);
  for (int number = 2; IsTaken(path) || IsTaken(NoteOf(path)); ++number) {
    path = directory / ToPath(name + "_" + std::to_string(number));
  }
  return path;
}

std::string MakeNote(const fs::path& target, const ListedChunk& chunk,
                     const ChunkContents& contents) {
  const std::string findings = DescribeFindings(contents);
  std::ostringstream note;
  note << "Moved here:  " << FormatNow() << "\nfrom:        " << ToText(chunk.path)
       << "\nbytes:       " << chunk.size << "\nevents:      " << contents.report.count
       << " by its count, " << contents.report.readable << " can be read\nfindings:    "
       << (findings.empty() ? "none; it was moved at somebody's wish" : findings)
       << "\nThere:       " << DescribeEffect(contents) << "\nTo bring back what can be read:\n"
       << "             orlo-cache requeue --salvage CACHE " << ToText(target) << '\n';
  return note.str();
}

// Returns where it is now.
fs::path Move(const CachePlace& place, const ListedChunk& chunk, const ChunkContents& contents) {
  const fs::path directory = place.cache / kDirectory;
  std::error_code error;
  fs::create_directory(directory, error);
  if (error) {
    throw ToolError(ToText(directory) + " can't be made: " + error.message());
  }
  fs::path target = FindFreeName(directory, chunk);
  const fs::path note = NoteOf(target);
  WriteNewFile(note, MakeNote(target, chunk, contents));
  fs::rename(chunk.path, target, error);
  if (error) {
    std::error_code ignored;
    fs::remove(note, ignored);
    throw ToolError(ToText(chunk.path) + " can't be moved: " + error.message());
  }
  // Not if there are other chunks in it.
  fs::remove(chunk.path.parent_path(), error);
  return target;
}

std::vector<ListedChunk> Choose(const QuarantineOptions& options,
                                const std::vector<ListedChunk>& chunks) {
  if (options.damaged) {
    return chunks;
  }
  std::vector<ListedChunk> chosen;
  for (const std::string& name : options.chunks) {
    chosen.push_back(FindChunk(chunks, name));
  }
  return chosen;
}

}  // namespace

ExitCode RunQuarantine(const QuarantineOptions& options, std::ostream& out, std::ostream&) {
  const CachePlace place = FindCache(options.place, options.stream);
  const OwnersRights rights(place);
  const CacheLock lock(place, "Chunks can be moved away");
  std::vector<std::string> skipped;
  const std::vector<ListedChunk> found = ListChunks(place.cache, skipped);
  nlohmann::ordered_json moved = nlohmann::ordered_json::array();
  const std::vector<ListedChunk> chosen = Choose(options, found);
  Progress progress("Checking", chosen.size());
  for (const ListedChunk& chunk : chosen) {
    const ChunkContents contents = ReadChunkFile(chunk, options.check);
    progress.Add(1);
    // Whoever asks for the damaged ones means no other.
    if (contents.IsHealthy() && options.damaged) {
      continue;
    }
    if (contents.IsHealthy() && !options.force) {
      throw ToolError(chunk.GetName() + " is healthy; with --force it is moved all the same");
    }
    const fs::path target = Move(place, chunk, contents);
    nlohmann::ordered_json one;
    one["chunk"] = ToPrintable(chunk.GetName());
    one["file"] = ToPrintable(ToText(target));
    one["findings"] = DescribeFindings(contents);
    moved.push_back(std::move(one));
    if (!options.json) {
      progress.Clear();
      out << ToPrintable(chunk.GetName()) << " is now " << ToPrintable(ToText(target)) << '\n';
    }
  }
  if (options.json) {
    out << moved.dump(2) << '\n';
  } else {
    out << Count(moved.size(), "chunk") << " moved away\n";
  }
  return kDone;
}

}  // namespace OrloCacheTool
