#pragma once

#include <filesystem>
#include <string>

namespace TestSupport {

// An empty directory of the test's own, removed with everything in it at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  // With the separators of Windows and one at the end.
  std::wstring WidePath() const;

 private:
  std::filesystem::path m_path;
};

}  // namespace TestSupport
