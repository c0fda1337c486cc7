#include "Agent/StdinSource.h"

#include <system_error>
#include <vector>

#include "Agent/FrameReader.h"
#include "Agent/ReceiveTime.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::size_t kReadSize = 256 * 1024;

class LinePoster : public IFrameSink {
 public:
  explicit LinePoster(EventPoster& poster) : m_poster(poster) {}

  void SetTime(std::uint64_t time) { m_time = time; }

  void OnFrame(const Frame& frame) override {
    m_poster.Post(m_header, frame.lineEnd ? 0 : EventFlags::kNoLineEnd, m_time, frame.bytes);
  }

 private:
  EventPoster& m_poster;
  const EventHeaderTemplate m_header{EventOrigin::Stdin, std::string_view()};
  std::uint64_t m_time = 0;
};

}  // namespace

StdinSource::StdinSource(const StdinSourceOptions& options, EndOfInput endOfInput)
    : m_options(options), m_endOfInput(std::move(endOfInput)) {}

StdinSource::~StdinSource() { Stop(); }

void StdinSource::Begin(const std::string& streamName) {
  m_log = WindowsAgentCommon::LoggerFactory::GetLog("Code.StdinSource." + streamName);
  try {
    m_input = std::make_unique<StandardInput>();
    m_poster = std::make_unique<EventPoster>(GetGate(), GetPostCounts(), m_log);
    m_thread = std::thread(&StdinSource::Run, this);
  } catch (const std::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "StdinSource", "OrloAgent::StdinSource::Begin", __LINE__,
        std::string("The standard input can't be read (") + error.what() + ")");
  }
}

void StdinSource::End() {
  if (m_thread.joinable()) {
    m_input->Interrupt();
    m_thread.join();
    m_poster->Finish();
    LogFacade::Info(m_log, "The standard input gave %d events.", GetPosted());
  }
}

std::vector<EndCounter> StdinSource::GetCounters() const {
  return {{"events", "Events that the source has posted", GetPosted()}};
}

void StdinSource::Run() {
  FrameReader reader({m_options.maxEventSize, FrameReaderOptions::Framing::Newline,
                      FrameReaderOptions::TooLong::Split});
  LinePoster lines(*m_poster);
  std::vector<char> buffer(kReadSize);
  for (;;) {
    std::size_t size = 0;
    const StandardInput::Outcome outcome = m_input->Read(buffer.data(), buffer.size(), size);
    lines.SetTime(GetReceiveTime());
    if (outcome == StandardInput::Outcome::Data) {
      reader.Feed({buffer.data(), size}, lines);
      continue;
    }
    if (outcome == StandardInput::Outcome::Failed) {
      LogFacade::Error(m_log, "The standard input can't be read any further (%s).",
                       m_input->GetError());
    }
    reader.Finish(lines);
    if (outcome != StandardInput::Outcome::Interrupted) {
      m_endOfInput();
    }
    return;
  }
}

}  // namespace OrloAgent
