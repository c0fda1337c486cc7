#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Agent/EventPoster.h"
#include "Agent/InputFile.h"
#include "Agent/PositionRecord.h"

namespace OrloAgent {

// One file whose lines are posted as they are written. Its source's thread only.
class FollowedFile {
 public:
  using Clock = std::chrono::steady_clock;

  // Goes on at the position of the record. The poster outlives the file. A line longer than
  // `maxEventSize` becomes several events.
  FollowedFile(std::unique_ptr<InputFile> file, std::filesystem::path path, PositionRecord record,
               std::size_t maxEventSize, EventPoster& poster, const WindowsAgentCommon::Log& log);

  const FileId& GetId() const { return m_file->GetId(); }
  const std::filesystem::path& GetPath() const { return m_path; }

  // Whether none of the source's paths names the file any more, because it was renamed or removed.
  bool IsLeft() const { return m_left; }
  void SetLeft(bool left, Clock::time_point now);

  // Posts the lines that are complete, until there is none left, `stop` is true, or the stream does
  // not take one: that one is the first of the next time. A file that has become shorter, or begins
  // with other bytes than before, is read from its beginning.
  void ReadOn(std::vector<char>& buffer, const std::atomic<bool>& stop, Clock::time_point now);

  // How long nothing has come, and since when no path names it, whichever is shorter.
  Clock::duration GetQuiet(Clock::time_point now) const { return now - m_lastChange; }

  // Posts what stands behind the last line end: there will be no line end any more. False if the
  // stream did not take it.
  bool Finish();

  PositionRecord& GetRecord() { return m_record; }

 private:
  // These are false if the stream did not take an event.
  bool LookForNewContent(std::uint64_t size);
  bool StartAgain(const char* reason);
  bool PostLines(std::string_view bytes);
  bool PostPending(std::size_t consumed, bool lineEnd);
  bool Post(std::string_view message, std::size_t consumed, bool lineEnd);

  const std::unique_ptr<InputFile> m_file;
  const std::filesystem::path m_path;
  PositionRecord m_record;
  const std::size_t m_maxEventSize;
  EventPoster& m_poster;
  WindowsAgentCommon::Log m_log;
  const EventHeaderTemplate m_header;
  // The position of the record, and the bytes behind it that are read and no line yet.
  std::uint64_t m_position;
  std::string m_pending;
  std::uint64_t m_receiveTime = 0;
  Clock::time_point m_lastChange;
  bool m_left = false;
  bool m_readFailed = false;
};

}  // namespace OrloAgent
