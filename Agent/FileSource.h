#pragma once

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Agent/FollowedFile.h"
#include "Agent/Options.h"
#include "Agent/Source.h"

namespace OrloAgent {

// Follows files: posts each line as it is written, without its line end, and keeps how far every
// file was posted, so that a restart goes on there. docs/source-file.md says what becomes of files
// that are renamed, copied and cut short, or removed.
//
// One thread looks at all files in turn. While the stream does not take events it reads none, and
// the files keep them.
class FileSource : public Source {
 public:
  // Positions are kept in `positions`, a directory that no other source of the agent uses.
  FileSource(const FileSourceOptions& options, std::filesystem::path positions);
  ~FileSource() override;

  std::vector<EndCounter> GetCounters() const override;

 protected:
  void Begin(const std::string& streamName) override;

  // Ends after the line that is being posted.
  void End() override;

 private:
  void Run();
  void Restore();
  void Restore(const std::filesystem::path& record);
  void LookForFiles(FollowedFile::Clock::time_point now);
  void Follow(const std::filesystem::path& path);
  void ReadAll(FollowedFile::Clock::time_point now);
  void DropLeft(FollowedFile::Clock::time_point now);
  void WarnOnce(const std::filesystem::path& path, const std::string& problem);
  bool WaitForNextLook();

  const FileSourceOptions m_options;
  const std::filesystem::path m_positions;
  WindowsAgentCommon::Log m_log;
  std::unique_ptr<EventPoster> m_poster;
  // In the order in which they were found. A file that was renamed stands before its successor.
  std::list<FollowedFile> m_files;
  std::vector<char> m_buffer;
  // Paths whose present trouble was told.
  std::set<std::filesystem::path> m_warned;
  bool m_firstLook = true;
  bool m_startAtEnd = false;

  std::atomic<bool> m_stop{false};
  std::mutex m_lock;
  std::condition_variable m_stopped;
  std::thread m_thread;
};

}  // namespace OrloAgent
