#include "Agent/StdoutChannel.h"

#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using WindowsAgentCommon::LogFacade;

namespace {

class StdoutChannel : public IChannel {
 public:
  explicit StdoutChannel(const std::string& streamName);

  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, milliseconds patience) override;
  void Close() override {}

 private:
  enum class Kind {
    // Takes any size without waiting: a file, /dev/null.
    Unlimited,
    Socket,
    // A pipe or terminal. After poll() it takes PIPE_BUF bytes without waiting. The descriptor is
    // not made non-blocking, because that would also change it for the processes we share it with.
    Limited
  };

  bool WaitUntilWritable(milliseconds patience) const;
  ssize_t WriteSome(std::string_view bytes) const;
  void OnFailure(int error);

  WindowsAgentCommon::Log m_log;
  Kind m_kind = Kind::Limited;
  bool m_gone = false;
  bool m_failing = false;
};

StdoutChannel::StdoutChannel(const std::string& streamName)
    : m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.StdoutDestination." + streamName)) {
  struct stat output {};
  if (fstat(STDOUT_FILENO, &output) != 0) {
    return;
  }
  if (S_ISREG(output.st_mode) || (S_ISCHR(output.st_mode) && isatty(STDOUT_FILENO) == 0)) {
    m_kind = Kind::Unlimited;
  } else if (S_ISSOCK(output.st_mode)) {
    m_kind = Kind::Socket;
  }
}

IChannel::Readiness StdoutChannel::Prepare(bool) {
  return m_gone ? Readiness::NotReady : Readiness::Ready;
}

bool StdoutChannel::WaitUntilWritable(milliseconds patience) const {
  pollfd wait{STDOUT_FILENO, POLLOUT, 0};
  // An error counts as writable: the write then tells what it is.
  return poll(&wait, 1, static_cast<int>(patience.count())) > 0;
}

ssize_t StdoutChannel::WriteSome(std::string_view bytes) const {
  if (m_kind == Kind::Socket) {
    return send(STDOUT_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  const std::size_t size =
      m_kind == Kind::Unlimited ? bytes.size() : std::min<std::size_t>(bytes.size(), PIPE_BUF);
  return write(STDOUT_FILENO, bytes.data(), size);
}

IChannel::WriteResult StdoutChannel::Write(std::string_view bytes, milliseconds patience) {
  WriteResult result;
  while (result.written < bytes.size()) {
    if (m_kind != Kind::Unlimited &&
        !WaitUntilWritable(result.written == 0 ? patience : milliseconds(0))) {
      return result;
    }
    const ssize_t count = WriteSome(bytes.substr(result.written));
    if (count > 0) {
      result.written += static_cast<std::size_t>(count);
      m_failing = false;
      continue;
    }
    const int error = count == 0 ? EIO : errno;
    if (error == EINTR) {
      continue;
    }
    if (error != EAGAIN && error != EWOULDBLOCK) {
      OnFailure(error);
      result.broken = m_gone;
    }
    if (!m_gone && result.written == 0) {
      poll(nullptr, 0, static_cast<int>(patience.count()));
    }
    return result;
  }
  return result;
}

void StdoutChannel::OnFailure(int error) {
  const std::string reason = std::generic_category().message(error);
  if (error == ENOSPC || error == EDQUOT || error == EFBIG || error == EIO) {
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
