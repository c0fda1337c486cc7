#include "Agent/RotatingChannel.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include "Agent/FileChannel.h"
#include "Agent/PathText.h"
#include "Agent/RotatedFiles.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;
using WindowsAgentCommon::LogFacade;

namespace {

// How long a file that could not be renamed or made anew is left.
constexpr std::chrono::seconds kBetweenAttempts{1};

class RotatingChannel : public IChannel {
 public:
  RotatingChannel(const std::string& path, const RotationOptions& options,
                  const std::string& streamName);

  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, milliseconds patience) override;
  void Close() override;
  std::vector<EndCounter> GetCounters() const override {
    return {{"files_rotated", "Files that were closed and begun anew", m_closed}};
  }

 private:
  void LookAtFile();
  std::int64_t GetPeriod(system_clock::time_point time) const;
  bool IsDue() const;
  Readiness Rotate();
  bool Open();
  void OnFailure(const char* what, const std::string& reason);

  const std::string m_path;
  const RotationOptions m_options;
  const std::string m_streamName;
  const WindowsAgentCommon::Log m_log;
  // Null while the file can't be made anew.
  std::unique_ptr<IChannel> m_file;
  RotatedFiles m_rotated;
  std::uint64_t m_size = 0;
  // The period in which the file was written last.
  std::int64_t m_period = 0;
  steady_clock::time_point m_nextAttempt{};
  bool m_failing = false;
  std::atomic<std::uint64_t> m_closed{0};
};

RotatingChannel::RotatingChannel(const std::string& path, const RotationOptions& options,
                                 const std::string& streamName)
    : m_path(path),
      m_options(options),
      m_streamName(streamName),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.FileDestination." + streamName)),
      m_file(MakeFileChannel(path, streamName)),
      m_rotated(ToPath(path), options, streamName) {
  LookAtFile();
}

// Of a file that another run has left, or somebody else has made, the size and the time tell.
void RotatingChannel::LookAtFile() {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(ToPath(m_path), error);
  m_size = error ? 0 : size;
  m_period = GetPeriod(system_clock::now());
  const auto written = std::filesystem::last_write_time(ToPath(m_path), error);
  if (!error && m_size > 0) {
    const auto age = std::filesystem::file_time_type::clock::now() - written;
    m_period =
        GetPeriod(system_clock::now() - std::chrono::duration_cast<system_clock::duration>(age));
  }
}

std::int64_t RotatingChannel::GetPeriod(system_clock::time_point time) const {
  return m_options.every.count() == 0
             ? 0
             : std::chrono::floor<milliseconds>(time.time_since_epoch()) / m_options.every;
}

bool RotatingChannel::IsDue() const {
  return m_size > 0 && steady_clock::now() >= m_nextAttempt &&
         ((m_options.size > 0 && m_size >= m_options.size) ||
          GetPeriod(system_clock::now()) != m_period);
}

IChannel::Readiness RotatingChannel::Prepare(bool atFrameStart) {
  if (!m_file) {
    if (steady_clock::now() < m_nextAttempt || !Open()) {
      return Readiness::NotReady;
    }
    m_failing = false;
    return Readiness::ReadyAnew;
  }
  if (atFrameStart && IsDue()) {
    return Rotate();
  }
  const Readiness readiness = m_file->Prepare(atFrameStart);
  if (readiness == Readiness::ReadyAnew) {
    LookAtFile();
  }
  return readiness;
}

IChannel::Readiness RotatingChannel::Rotate() {
  // Where somebody has renamed the file already, that is the rotation.
  m_file->Close();
  m_file.reset();
  std::error_code error;
  m_rotated.Close(error);
  if (error && error != std::errc::no_such_file_or_directory) {
    OnFailure("renamed", error.message());
  } else {
    m_failing = false;
    ++m_closed;
  }
  return Open() ? Readiness::ReadyAnew : Readiness::NotReady;
}

bool RotatingChannel::Open() {
  try {
    m_file = MakeFileChannel(m_path, m_streamName);
  } catch (const WindowsAgentCommon::InitializationException& failure) {
    OnFailure("made anew", failure.what());
    return false;
  }
  LookAtFile();
  return true;
}

IChannel::WriteResult RotatingChannel::Write(std::string_view bytes, milliseconds patience) {
  const WriteResult result = m_file->Write(bytes, patience);
  if (result.written > 0) {
    m_size += result.written;
    m_period = GetPeriod(system_clock::now());
  }
  return result;
}

void RotatingChannel::Close() {
  if (m_file) {
    m_file->Close();
  }
}

void RotatingChannel::OnFailure(const char* what, const std::string& reason) {
  m_nextAttempt = steady_clock::now() + kBetweenAttempts;
  if (!m_failing) {
    m_failing = true;
    LogFacade::Warn(m_log, "The file %s can't be %s (%s); trying again.", m_path, what, reason);
  }
}

}  // namespace

std::unique_ptr<IChannel> MakeRotatingChannel(const std::string& path,
                                              const RotationOptions& options,
                                              const std::string& streamName) {
  return std::make_unique<RotatingChannel>(path, options, streamName);
}

}  // namespace OrloAgent
