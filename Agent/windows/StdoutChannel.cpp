#include "Agent/StdoutChannel.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "Platform/Error.h"
#include "Platform/Windows.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using WindowsAgentCommon::LogFacade;

namespace {

struct Written {
  std::size_t count = 0;
  DWORD error = ERROR_SUCCESS;
};

Written WriteTo(HANDLE output, std::string_view bytes) {
  DWORD count = 0;
  const BOOL bWritten =
      WriteFile(output, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
  return {count, bWritten ? ERROR_SUCCESS : GetLastError()};
}

// Writes to a pipe on a thread of its own: Windows has no write that ends after a time. The thread
// shares the object, so that it may outlive whoever waits for it when the pipe's reader does not
// read any more.
class PipeWriter {
 public:
  // The bytes handed over before and not answered yet, or these ones; nothing after `patience`.
  // Whoever gets nothing comes back with the same bytes, or with more that begin with them.
  static std::optional<Written> Write(const std::shared_ptr<PipeWriter>& self,
                                      std::string_view bytes, milliseconds patience) {
    std::unique_lock guard(self->m_lock);
    if (!self->m_bBusy) {
      self->m_bytes.assign(bytes);
      self->m_bBusy = true;
      if (!self->m_bStarted) {
        self->m_bStarted = true;
        std::thread([self] { self->Run(); }).detach();
      }
      self->m_changed.notify_all();
    }
    if (!self->m_changed.wait_for(guard, patience, [&] { return self->m_answer.has_value(); })) {
      return std::nullopt;
    }
    self->m_bBusy = false;
    return std::exchange(self->m_answer, std::nullopt);
  }

  void Stop() {
    const std::lock_guard guard(m_lock);
    m_bStopped = true;
    m_changed.notify_all();
  }

 private:
  void Run() {
    std::unique_lock guard(m_lock);
    for (;;) {
      m_changed.wait(guard, [&] { return m_bStopped || (m_bBusy && !m_answer); });
      if (m_bStopped) {
        return;
      }
      guard.unlock();
      const Written written = WriteTo(GetStdHandle(STD_OUTPUT_HANDLE), m_bytes);
      guard.lock();
      m_answer = written;
      m_changed.notify_all();
    }
  }

  std::mutex m_lock;
  std::condition_variable m_changed;
  // While busy and without an answer, the thread reads the bytes; otherwise guarded by the lock.
  std::string m_bytes;
  bool m_bBusy = false;
  bool m_bStarted = false;
  bool m_bStopped = false;
  std::optional<Written> m_answer;
};

class StdoutChannel : public IChannel {
 public:
  explicit StdoutChannel(const std::string& streamName)
      : m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.StdoutDestination." + streamName)),
        m_output(GetStdHandle(STD_OUTPUT_HANDLE)) {
    if (GetFileType(m_output) == FILE_TYPE_PIPE) {
      m_pipe = std::make_shared<PipeWriter>();
    }
  }
  ~StdoutChannel() override {
    if (m_pipe) {
      m_pipe->Stop();
    }
  }

  Readiness Prepare(bool) override { return m_gone ? Readiness::NotReady : Readiness::Ready; }
  WriteResult Write(std::string_view bytes, milliseconds patience) override;
  void Close() override {}

 private:
  void OnFailure(DWORD error);

  WindowsAgentCommon::Log m_log;
  const HANDLE m_output;
  std::shared_ptr<PipeWriter> m_pipe;  // null: a file or console, which takes all at once
  bool m_gone = false;
  bool m_failing = false;
};

IChannel::WriteResult StdoutChannel::Write(std::string_view bytes, milliseconds patience) {
  constexpr std::size_t kMostAtOnce = 64 * 1024;
  WriteResult result;
  while (result.written < bytes.size()) {
    const std::string_view part = bytes.substr(result.written, kMostAtOnce);
    // A reader that reads takes a part in less than that.
    const milliseconds limit = std::max(patience, milliseconds(20));
    const std::optional<Written> written =
        m_pipe ? PipeWriter::Write(m_pipe, part, result.written == 0 ? limit : milliseconds(20))
               : WriteTo(m_output, part);
    if (!written) {
      return result;
    }
    result.written += written->count;
    if (written->error == ERROR_SUCCESS && written->count > 0) {
      m_failing = false;
      continue;
    }
    OnFailure(written->error);
    result.broken = m_gone;
    if (!m_gone && result.written == 0) {
      std::this_thread::sleep_for(patience);
    }
    return result;
  }
  return result;
}

void StdoutChannel::OnFailure(DWORD error) {
  const std::string reason = Platform::ErrorText(error);
  if (error == ERROR_SUCCESS || error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL ||
      error == ERROR_IO_DEVICE) {
    if (!m_failing) {
      m_failing = true;
      LogFacade::Warn(m_log, "The standard output can't be written (%s); events wait until it can.",
                      reason);
    }
    return;
  }
  m_gone = true;
  LogFacade::Error(m_log, "The standard output is closed (%s); no more events can be delivered.",
                   reason);
}

}  // namespace

std::unique_ptr<IChannel> MakeStdoutChannel(const std::string& streamName) {
  return std::make_unique<StdoutChannel>(streamName);
}

}  // namespace OrloAgent
