#include "Agent/FileChannel.h"

#include <thread>

#include "Agent/AppendFile.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::seconds kBetweenLooks{1};

class FileChannel : public IChannel {
 public:
  FileChannel(const std::string& path, const std::string& streamName);

  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, milliseconds patience) override;
  void Close() override { m_file.Close(); }

 private:
  void OnFailure(const char* what, const std::string& problem);
  void OnSuccess();

  AppendFile m_file;
  WindowsAgentCommon::Log m_log;
  steady_clock::time_point m_nextLook{};
  bool m_failing = false;
};

FileChannel::FileChannel(const std::string& path, const std::string& streamName)
    : m_file(path),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.FileDestination." + streamName)) {
  if (const std::string problem = m_file.Open(); !problem.empty()) {
    throw WindowsAgentCommon::InitializationException(
        "FileChannel", "OrloAgent::FileChannel::FileChannel", __LINE__,
        "The file " + path + " can't be opened for appending (" + problem + ")");
  }
  m_nextLook = steady_clock::now() + kBetweenLooks;
}

IChannel::Readiness FileChannel::Prepare(bool atFrameStart) {
  const auto now = steady_clock::now();
  if (now < m_nextLook) {
    return m_file.IsOpen() ? Readiness::Ready : Readiness::NotReady;
  }
  if (m_file.IsOpen() && !atFrameStart) {
    return Readiness::Ready;
  }
  m_nextLook = now + kBetweenLooks;
  if (m_file.IsOpen()) {
    if (m_file.IsStillThere()) {
      return Readiness::Ready;
    }
    LogFacade::Info(m_log, "The file %s was renamed or removed; it is made anew.",
                    m_file.GetPath());
    Close();
  }
  if (const std::string problem = m_file.Open(); !problem.empty()) {
    OnFailure("opened", problem);
    return Readiness::NotReady;
  }
  return Readiness::ReadyAnew;
}

IChannel::WriteResult FileChannel::Write(std::string_view bytes, milliseconds patience) {
  const AppendFile::Written written = m_file.Write(bytes);
  if (written.problem.empty()) {
    OnSuccess();
  } else {
    OnFailure("written", written.problem);
    if (written.count == 0) {
      std::this_thread::sleep_for(patience);
    }
  }
  WriteResult result;
  result.written = written.count;
  return result;
}

void FileChannel::OnFailure(const char* what, const std::string& problem) {
  if (!m_failing) {
    m_failing = true;
    LogFacade::Warn(m_log, "The file %s can't be %s (%s); events wait until it can.",
                    m_file.GetPath(), what, problem);
  }
}

void FileChannel::OnSuccess() {
  if (m_failing) {
    m_failing = false;
    LogFacade::Info(m_log, "The file %s is written again.", m_file.GetPath());
  }
}

}  // namespace

std::unique_ptr<IChannel> MakeFileChannel(const std::string& path, const std::string& streamName) {
  return std::make_unique<FileChannel>(path, streamName);
}

}  // namespace OrloAgent
