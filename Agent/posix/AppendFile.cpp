#include "Agent/AppendFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace OrloAgent {

namespace {

constexpr std::intptr_t kNone = -1;

// Events can hold what not everybody is to read.
constexpr mode_t kFileMode = 0640;

int Descriptor(std::intptr_t file) { return static_cast<int>(file); }

std::string TextOf(int error) { return std::generic_category().message(error); }

}  // namespace

AppendFile::AppendFile(const std::string& path) : m_path(path), m_file(kNone) {}

AppendFile::~AppendFile() { Close(); }

std::string AppendFile::Open() {
  const std::filesystem::path directory = std::filesystem::path(m_path).parent_path();
  if (!directory.empty()) {
    std::error_code ignored;  // open() tells better what is wrong
    std::filesystem::create_directories(directory, ignored);
  }
  m_file = open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode);
  return m_file == kNone ? TextOf(errno) : std::string();
}

std::string AppendFile::OpenNew() {
  constexpr mode_t kNewFileMode = 0666;
  m_file = open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
  return m_file == kNone ? TextOf(errno) : std::string();
}

bool AppendFile::IsOpen() const { return m_file != kNone; }

void AppendFile::Close() {
  if (m_file != kNone) {
    close(Descriptor(m_file));
    m_file = kNone;
  }
}

bool AppendFile::IsStillThere() const {
  struct stat named {};
  struct stat opened {};
  return stat(m_path.c_str(), &named) == 0 && fstat(Descriptor(m_file), &opened) == 0 &&
         named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

AppendFile::Written AppendFile::Write(std::string_view bytes) {
  Written written;
  while (written.count < bytes.size()) {
    const ssize_t count =
        write(Descriptor(m_file), bytes.data() + written.count, bytes.size() - written.count);
    if (count > 0) {
      written.count += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      written.problem = TextOf(count == 0 ? ENOSPC : errno);
      break;
    }
  }
  return written;
}

}  // namespace OrloAgent
