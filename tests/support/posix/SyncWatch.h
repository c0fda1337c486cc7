#pragma once

#include <filesystem>
#include <functional>

namespace TestSupport {

// Sees what the program brings to the disk. A program with SyncWatch.cpp among its sources has an
// fsync of its own, which is the system's as long as there is no watch. One at a time.
class SyncWatch {
 public:
  // Asked before the system is, with the path of the file or directory: the error that fsync gives
  // in the system's place, or 0. By whatever thread calls fsync, one after the other.
  using Answer = std::function<int(const std::filesystem::path&)>;

  explicit SyncWatch(Answer answer);
  ~SyncWatch();
  SyncWatch(const SyncWatch&) = delete;
  SyncWatch& operator=(const SyncWatch&) = delete;

 private:
  const Answer m_answer;
};

}  // namespace TestSupport
