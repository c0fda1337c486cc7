#pragma once

#include <filesystem>
#include <string>

namespace Benchmark {

// A directory below the system's place for temporary files, removed with everything in it at the
// end.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  // With a separator at the end.
  const std::wstring& WidePath() const { return m_widePath; }

 private:
  std::filesystem::path m_path;
  std::wstring m_widePath;
};

}  // namespace Benchmark
