#include "Agent/FileChannel.h"

#include <algorithm>
#include <filesystem>
#include <thread>

#include "Agent/PathText.h"
#include "Platform/Error.h"
#include "Platform/Windows.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::seconds kBetweenLooks{1};

// Everybody may read, rename and remove the file while it is open.
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class FileChannel : public IChannel {
 public:
  FileChannel(const std::string& path, const std::string& streamName);
  ~FileChannel() override { Close(); }

  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, milliseconds patience) override;
  void Close() override;

 private:
  DWORD Open();
  bool IsStillThere() const;
  void OnFailure(const char* what, DWORD error);
  void OnSuccess();

  const std::string m_name;
  const std::filesystem::path m_path;
  WindowsAgentCommon::Log m_log;
  HANDLE m_file = INVALID_HANDLE_VALUE;
  steady_clock::time_point m_nextLook{};
  bool m_failing = false;
};

FileChannel::FileChannel(const std::string& path, const std::string& streamName)
    : m_name(path),
      m_path(ToPath(path)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.FileDestination." + streamName)) {
  if (const DWORD error = Open()) {
    throw WindowsAgentCommon::InitializationException(
        "FileChannel", "OrloAgent::FileChannel::FileChannel", __LINE__,
        "The file " + m_name + " can't be opened for appending (" + Platform::ErrorText(error) +
            ")");
  }
  m_nextLook = steady_clock::now() + kBetweenLooks;
}

// Returns 0 or the error.
DWORD FileChannel::Open() {
  if (m_path.has_parent_path()) {
    std::error_code ignored;  // the opening tells better what is wrong
    std::filesystem::create_directories(m_path.parent_path(), ignored);
  }
  m_file = CreateFileW(m_path.c_str(), FILE_APPEND_DATA, kShareAll, nullptr, OPEN_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
  return m_file == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
}

bool FileChannel::IsStillThere() const {
  const HANDLE named = CreateFileW(m_path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                   OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (named == INVALID_HANDLE_VALUE) {
    return false;
  }
  BY_HANDLE_FILE_INFORMATION there{};
  BY_HANDLE_FILE_INFORMATION ours{};
  const bool bKnown = GetFileInformationByHandle(named, &there) != FALSE &&
                      GetFileInformationByHandle(m_file, &ours) != FALSE;
  CloseHandle(named);
  return bKnown && there.dwVolumeSerialNumber == ours.dwVolumeSerialNumber &&
         there.nFileIndexHigh == ours.nFileIndexHigh && there.nFileIndexLow == ours.nFileIndexLow;
}

IChannel::Readiness FileChannel::Prepare(bool atFrameStart) {
  const auto now = steady_clock::now();
  const bool bOpen = m_file != INVALID_HANDLE_VALUE;
  if (now < m_nextLook) {
    return bOpen ? Readiness::Ready : Readiness::NotReady;
  }
  if (bOpen && !atFrameStart) {
    return Readiness::Ready;
  }
  m_nextLook = now + kBetweenLooks;
  if (bOpen) {
    if (IsStillThere()) {
      return Readiness::Ready;
    }
    LogFacade::Info(m_log, "The file %s was renamed or removed; it is made anew.", m_name);
    Close();
  }
  if (const DWORD error = Open()) {
    OnFailure("opened", error);
    return Readiness::NotReady;
  }
  return Readiness::ReadyAnew;
}

IChannel::WriteResult FileChannel::Write(std::string_view bytes, milliseconds patience) {
  constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;
  WriteResult result;
  while (result.written < bytes.size()) {
    DWORD count = 0;
    const auto size = static_cast<DWORD>(std::min(bytes.size() - result.written, kMostAtOnce));
    const BOOL bWritten = WriteFile(m_file, bytes.data() + result.written, size, &count, nullptr);
    const DWORD error = bWritten ? ERROR_DISK_FULL : GetLastError();
    result.written += count;
    if (!bWritten || count == 0) {
      OnFailure("written", error);
      if (result.written == 0) {
        std::this_thread::sleep_for(patience);
      }
      return result;
    }
  }
  OnSuccess();
  return result;
}

void FileChannel::OnFailure(const char* what, DWORD error) {
  if (!m_failing) {
    m_failing = true;
    LogFacade::Warn(m_log, "The file %s can't be %s (%s); events wait until it can.", m_name, what,
                    Platform::ErrorText(error));
  }
}

void FileChannel::OnSuccess() {
  if (m_failing) {
    m_failing = false;
    LogFacade::Info(m_log, "The file %s is written again.", m_name);
  }
}

void FileChannel::Close() {
  if (m_file != INVALID_HANDLE_VALUE) {
    CloseHandle(m_file);
    m_file = INVALID_HANDLE_VALUE;
  }
}

}  // namespace

std::unique_ptr<IChannel> MakeFileChannel(const std::string& path, const std::string& streamName) {
  return std::make_unique<FileChannel>(path, streamName);
}

}  // namespace OrloAgent
