#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "Platform/Windows.h"
#include "tests/support/TemporaryDirectory.h"

namespace PlatformTest {

// What a path can lead to.
enum class State { Missing, File, ReadOnlyFile, Directory, MissingParent, FileAsParent };

constexpr State kStates[] = {State::Missing,   State::File,          State::ReadOnlyFile,
                             State::Directory, State::MissingParent, State::FileAsParent};

std::ostream& operator<<(std::ostream& stream, State state);

constexpr char kContent[] = "0123456789";
constexpr std::uint64_t kContentSize = sizeof kContent - 1;

// A directory with one path in the given state. The files hold kContent.
class PathInState {
 public:
  explicit PathInState(State state);

  const std::wstring& WidePath() const { return m_widePath; }
  const std::filesystem::path& Path() const { return m_path; }
  std::string Content() const;

 private:
  TestSupport::TemporaryDirectory m_directory;
  std::filesystem::path m_path;
  std::wstring m_widePath;
};

void WriteTextFile(const std::filesystem::path& path, const std::string& content);

// Errors that stand for a value which must have been replaced.
constexpr DWORD kStale = 0xDEAD;

}  // namespace PlatformTest
