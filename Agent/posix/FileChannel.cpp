#include "Agent/FileChannel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <thread>

#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::seconds kBetweenLooks{1};

// Events can hold what not everybody is to read.
constexpr mode_t kFileMode = 0640;

class FileChannel : public IChannel {
 public:
  FileChannel(const std::string& path, const std::string& streamName);
  ~FileChannel() override { Close(); }

  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, milliseconds patience) override;
  void Close() override;

 private:
  int Open();
  bool IsStillThere() const;
  void OnFailure(const char* what, int error);
  void OnSuccess();

  const std::string m_path;
  WindowsAgentCommon::Log m_log;
  int m_file = -1;
  steady_clock::time_point m_nextLook{};
  bool m_failing = false;
};

FileChannel::FileChannel(const std::string& path, const std::string& streamName)
    : m_path(path),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.FileDestination." + streamName)) {
  if (const int error = Open()) {
    throw WindowsAgentCommon::InitializationException(
        "FileChannel", "OrloAgent::FileChannel::FileChannel", __LINE__,
        "The file " + m_path + " can't be opened for appending (" +
            std::generic_category().message(error) + ")");
  }
  m_nextLook = steady_clock::now() + kBetweenLooks;
}

// Returns 0 or the error.
int FileChannel::Open() {
  const std::filesystem::path directory = std::filesystem::path(m_path).parent_path();
  if (!directory.empty()) {
    std::error_code ignored;  // open() tells better what is wrong
    std::filesystem::create_directories(directory, ignored);
  }
  m_file = open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode);
  return m_file < 0 ? errno : 0;
}

bool FileChannel::IsStillThere() const {
  struct stat named {};
  struct stat opened {};
  return stat(m_path.c_str(), &named) == 0 && fstat(m_file, &opened) == 0 &&
         named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

IChannel::Readiness FileChannel::Prepare(bool atFrameStart) {
  const auto now = steady_clock::now();
  if (now < m_nextLook) {
    return m_file < 0 ? Readiness::NotReady : Readiness::Ready;
  }
  if (m_file >= 0 && !atFrameStart) {
    return Readiness::Ready;
  }
  m_nextLook = now + kBetweenLooks;
  if (m_file >= 0) {
    if (IsStillThere()) {
      return Readiness::Ready;
    }
    LogFacade::Info(m_log, "The file %s was renamed or removed; it is made anew.", m_path);
    Close();
  }
  if (const int error = Open()) {
    OnFailure("opened", error);
    return Readiness::NotReady;
  }
  return Readiness::ReadyAnew;
}

IChannel::WriteResult FileChannel::Write(std::string_view bytes, milliseconds patience) {
  WriteResult result;
  while (result.written < bytes.size()) {
    const ssize_t count =
        write(m_file, bytes.data() + result.written, bytes.size() - result.written);
    if (count > 0) {
      result.written += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      OnFailure("written", count == 0 ? ENOSPC : errno);
      if (result.written == 0) {
        std::this_thread::sleep_for(patience);
      }
      return result;
    }
  }
  OnSuccess();
  return result;
}

void FileChannel::OnFailure(const char* what, int error) {
  if (!m_failing) {
    m_failing = true;
    LogFacade::Warn(m_log, "The file %s can't be %s (%s); events wait until it can.", m_path, what,
                    std::generic_category().message(error));
  }
}

void FileChannel::OnSuccess() {
  if (m_failing) {
    m_failing = false;
    LogFacade::Info(m_log, "The file %s is written again.", m_path);
  }
}

void FileChannel::Close() {
  if (m_file >= 0) {
    close(m_file);
    m_file = -1;
  }
}

}  // namespace

std::unique_ptr<IChannel> MakeFileChannel(const std::string& path, const std::string& streamName) {
  return std::make_unique<FileChannel>(path, streamName);
}

}  // namespace OrloAgent
