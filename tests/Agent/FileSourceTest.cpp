#include "Agent/FileSource.h"

#include <gtest/gtest.h>

#include <fstream>
#include <mutex>

#include "Agent/PathText.h"
#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/Agent/BareStream.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloAgent {

using TestSupport::WaitUntil;

namespace {

// Keeps what comes out of a stream without stages, and refuses some of it when told to.
class Output {
 public:
  void RefuseNext(int count) {
    const std::lock_guard guard(m_lock);
    m_refusals = count;
  }
  bool Offer(const std::string& line) {
    const std::lock_guard guard(m_lock);
    if (m_refusals > 0) {
      --m_refusals;
      return false;
    }
    m_lines.push_back(line);
    return true;
  }
  std::vector<std::string> GetLines() const {
    const std::lock_guard guard(m_lock);
    return m_lines;
  }

 private:
  mutable std::mutex m_lock;
  int m_refusals = 0;
  std::vector<std::string> m_lines;
};

class OutputTask : public WindowsAgentCommon::OrloTask {
 public:
  explicit OutputTask(Output& output) : m_output(output) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    return m_output.Offer(TestSupport::PayloadOf(event.get())) ? 0 : -1;
  }

 private:
  Output& m_output;
};

class OpenFileSource : public FileSource {
 public:
  using FileSource::FileSource;
  using Source::GetGate;
};

class FileSourceTest : public testing::Test {
 protected:
  FileSourceTest() {
    m_stream = &m_manager.Create(TestSupport::BareStream(std::make_unique<OutputTask>(m_output)));
  }

  std::unique_ptr<OpenFileSource> MakeSource() const {
    FileSourceOptions options;
    options.paths = {ToText(m_log)};
    options.pollInterval = std::chrono::milliseconds(10);
    return std::make_unique<OpenFileSource>(options, m_directory.Path() / "positions");
  }

  void Append(const std::string& text) const {
    std::ofstream(m_log, std::ios::binary | std::ios::app) << text;
  }

  bool WaitFor(const std::vector<std::string>& lines) const {
    return WaitUntil([&] { return m_output.GetLines().size() >= lines.size(); }) &&
           m_output.GetLines() == lines;
  }

  TestSupport::LogCapture m_messages;
  const TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_log = m_directory.Path() / "app.log";
  Output m_output;
  OrloStream::StreamManager m_manager{"."};
  OrloStream::Stream* m_stream = nullptr;
};

TEST_F(FileSourceTest, LinesThatWaitWhenAPausedSourceIsStoppedComeAtTheNextStart) {
  Append("one\n");
  auto source = MakeSource();
  source->Start(*m_stream);
  ASSERT_TRUE(WaitFor({"one"}));
  source->Pause();
  Append("two\nthree\nfour\n");
  // The first of them is under way.
  ASSERT_TRUE(WaitUntil([&] { return source->GetGate().IsAwaited(); }));
  EXPECT_EQ(source->GetPosted(), 1u);
  source->Stop();
  EXPECT_EQ(source->GetPosted(), 1u);
  EXPECT_EQ(source->GetNotMade(), 0u) << "nothing is lost";
  source = MakeSource();
  source->Start(*m_stream);
  EXPECT_TRUE(WaitFor({"one", "two", "three", "four"}));
}

TEST_F(FileSourceTest, LinesThatTheStreamRefusesAreOfferedAgainInTheirOrder) {
  m_output.RefuseNext(3);
  Append("one\ntwo\nunfinished");
  auto source = MakeSource();
  source->Start(*m_stream);
  ASSERT_TRUE(WaitFor({"one", "two"}));
  // What was read of it before is read again.
  m_output.RefuseNext(2);
  Append(" until now\nlast\n");
  EXPECT_TRUE(WaitFor({"one", "two", "unfinished until now", "last"}));
  EXPECT_EQ(source->GetPosted(), 4u);
}

}  // namespace

}  // namespace OrloAgent
