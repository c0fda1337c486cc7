#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agent/Options.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// The name that a file gets when it is closed: its own, and the time in UTC to the millisecond, so
// that names sort by time. "events.log" becomes "events.log.2026-11-21T16-18-39.123Z".
std::filesystem::path MakeRotatedName(const std::filesystem::path& file,
                                      std::chrono::sys_time<std::chrono::milliseconds> time);

// Closed files of one destination, which lie beside the file that is written: finds them, deletes
// the oldest ones, and compresses them, on a thread of its own, so that nobody waits for it.
//
// Everything is found again in the directory: whatever was left undone when the agent ended is done
// when it starts. A file is compressed under another name, and takes the place of the plain one
// when it is complete and on the disk. So at any moment, a power cut included, there is the plain
// file or the complete compressed one; after a crash between the two last steps there are both, and
// the plain one is deleted if the other one holds all of it.
class RotatedFiles {
 public:
  // `file` is the one that is written. Starts to work at once.
  RotatedFiles(std::filesystem::path file, const RotationOptions& options,
               const std::string& streamName);

  // A file that is being compressed is left as it was.
  ~RotatedFiles();
  RotatedFiles(const RotatedFiles&) = delete;
  RotatedFiles& operator=(const RotatedFiles&) = delete;

  // Gives the file its name and has it taken care of. Nothing may be written to it any more. The
  // name is later than that of every file closed before, whatever the clock says.
  void Close(std::error_code& error);

  // Closed files, oldest first, plain and compressed.
  std::vector<std::filesystem::path> Find() const;

 private:
  void Run();
  void RemoveLeftovers();
  void RemovePlain(const std::filesystem::path& plain);
  void DeleteOldest();
  void CompressAll();
  void Compress(const std::filesystem::path& plain);
  bool IsStopping();

  const std::filesystem::path m_file;
  const RotationOptions m_options;
  const WindowsAgentCommon::Log m_log;
  // The time in the newest name.
  std::chrono::sys_time<std::chrono::milliseconds> m_newest{};

  std::mutex m_lock;
  std::condition_variable m_changed;
  // Guarded by m_lock:
  bool m_work = true;
  bool m_stop = false;

  std::thread m_thread;
};

}  // namespace OrloAgent
