#include "tests/Platform/PathStates.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace PlatformTest {

namespace fs = std::filesystem;

std::ostream& operator<<(std::ostream& stream, State state) {
  constexpr const char* kNames[] = {"missing",   "file",           "read-only file",
                                    "directory", "missing parent", "file as parent"};
  return stream << kNames[static_cast<int>(state)];
}

void WriteTextFile(const fs::path& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  if (!file.flush()) {
    throw std::runtime_error("can't write " + path.string());
  }
}

PathInState::PathInState(State state) {
  m_path = m_directory.Path() / "object";
  m_widePath = m_directory.WidePath() + L"object";
  switch (state) {
    case State::Missing:
      break;
    case State::File:
      WriteTextFile(m_path, kContent);
      break;
    case State::ReadOnlyFile:
      WriteTextFile(m_path, kContent);
      fs::permissions(m_path, fs::perms::owner_read | fs::perms::group_read);
      break;
    case State::Directory:
      fs::create_directory(m_path);
      break;
    case State::FileAsParent:
      WriteTextFile(m_path, kContent);
      [[fallthrough]];
    case State::MissingParent:
      m_path /= "below";
      m_widePath += L"\\below";
      break;
  }
}

std::string PathInState::Content() const {
  std::ifstream file(m_path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace PlatformTest
