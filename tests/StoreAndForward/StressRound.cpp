#include "tests/StoreAndForward/StressRound.h"

#include <gtest/gtest.h>

#include <charconv>
#include <fstream>
#include <iterator>

#include "StoreAndForward/ChunkFormat.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/StoreAndForward/StageHarness.h"

namespace OrloStoreAndForward {

using std::chrono::milliseconds;
using TestSupport::LogLine;
using WindowsAgentCommon::LogLevel;

namespace {

const std::string kLostText =
    "Event cache rejected message block for persistance.  Messages lost (";

std::int64_t ReadNumber(const std::string& text, std::size_t begin) {
  std::int64_t number = -1;
  std::from_chars(text.data() + begin, text.data() + text.size(), number);
  return number;
}

bool StartsWith(const std::string& text, const std::string& start) {
  return text.rfind(start, 0) == 0;
}

}  // namespace

std::string StressEvent::ToPayload() const {
  return std::to_string(round) + ":" + std::to_string(poster) + ":" + std::to_string(number);
}

StressEvent StressEvent::FromPayload(const std::string& payload) {
  StressEvent id{};
  const char* const end = payload.data() + payload.size();
  const auto round = std::from_chars(payload.data(), end, id.round);
  const auto poster = std::from_chars(round.ptr + 1, end, id.poster);
  std::from_chars(poster.ptr + 1, end, id.number);
  return id;
}

int StressDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  constexpr std::int64_t kCertainRefusal = 10;
  const WindowsAgentCommon::MessageBlockPtr event(block);
  const std::uint32_t roll = m_random() % (m_patient ? 40'000 : 4'000);
  ++m_offers;
  const std::lock_guard guard(m_lock);
  if (roll == 0 || (m_patient && m_offers == kCertainRefusal)) {
    ++m_counts["backpressure"];
    return kBackpressure;
  }
  m_taken.push_back(StressEvent::FromPayload(TestSupport::PayloadOf(block)));
  if (m_counts.contains("backpressure")) {
    ++m_counts["resumed"];
  }
  const bool failed = roll % 40 == 1;
  m_counts["error"] += failed ? 1 : 0;
  return failed ? -1 : 0;
}

std::vector<StressEvent> StressDestination::Taken() const {
  const std::lock_guard guard(m_lock);
  return m_taken;
}

StressCounts StressDestination::Counts() const {
  const std::lock_guard guard(m_lock);
  return m_counts;
}

StressRound::StressRound(std::size_t number, std::uint32_t seed, const Options& options,
                         const std::filesystem::path& data)
    : m_number(number),
      m_name("Round" + std::to_string(number)),
      m_options(options),
      m_cache(data / "Events" / m_name),
      m_random(seed) {
  using Module = ACE_Module<ACE_MT_SYNCH>;
  Module* const module = CreateStoreAndForwardModule();
  m_stage = dynamic_cast<StoreAndForwardStage*>(module->writer());
  m_stage->SetParentStreamName(std::wstring(m_name.begin(), m_name.end()));
  m_destination = new StressDestination(m_random(), m_options.bLong);
  m_stream.push(
      new Module(ACE_TEXT("Destination"), m_destination, nullptr, nullptr, Module::M_DELETE));
  m_stream.push(module);
}

StressRound::~StressRound() { m_stream.close(); }

WindowsAgentCommon::EnvironmentBlock StressRound::ChooseSettings() {
  WindowsAgentCommon::EnvironmentBlock settings{{"DataChunkPeriod", "5"}};
  m_schedule = m_options.bClosed || (!m_options.bLong && m_random() % 2 == 0);
  if (m_options.bClosed) {
    settings.emplace("Schedule.Enable", "true");
    settings.emplace("Schedule.Interval", "0000-2359;00;UTC");
  } else if (m_schedule) {
    settings.emplace("Schedule.Enable", "true");
    for (int hour = 0; hour < 24; hour += 2) {
      const std::string digits = (hour < 10 ? "0" : "") + std::to_string(hour);
      settings.emplace("Schedule.Interval", digits + "00-" + digits + "59;7F;UTC");
    }
    settings.emplace("Schedule.Invert", m_random() % 2 == 0 ? "true" : "false");
  }
  if (m_options.bFull) {
    // With the low mark just below the high one: a poster that waits is woken as soon as there is
    // room, so that the queue is full when nobody takes from it any more.
    settings.emplace("QueueHighWaterMark", "100");
    settings.emplace("QueueLowWaterMark", "99");
  }
  return settings;
}

void StressRound::Start() {
  const WindowsAgentCommon::StatisticsInstanceScope scope(m_name);
  std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile> profile;
  m_stage->CreateStatisticsProfile(profile);
  profile->Initialize();
  m_stage->Initialize(ChooseSettings());
  m_stopDuringPosts = m_random() % 2 == 0;
  // The first chunk comes after five seconds and more, and the second attempt half a minute after
  // the refusal of one of its events.
  m_life = milliseconds(m_options.bLong     ? 70'000
                        : m_options.bClosed ? 7'000 + m_random() % 6'000
                                            : m_random() % 13'000);
  m_posters.resize(kPosters);
  for (std::size_t poster = 0; poster < kPosters; ++poster) {
    m_posters[poster].thread =
        std::thread([this, poster, seed = m_random()] { Post(poster, seed); });
  }
}

void StressRound::Post(std::size_t poster, std::uint32_t seed) {
  // Few enough for a queue of the default size to take them all when nobody empties it any more.
  constexpr std::size_t kEvents = 500;
  StressRandom random(seed);
  Poster& own = m_posters[poster];
  const std::uint32_t longest = m_options.bLong ? 800 : 100;
  for (std::size_t number = 0; m_options.bFull || (number < kEvents && !m_enough); ++number) {
    const StressEvent id{m_number, poster, number};
    if (m_stage->put(TestSupport::MakeEvent("head", id.ToPayload())) >= 0) {
      own.accepted.push_back(id);
    } else {
      ++own.failed;
      if (m_options.bFull) {
        return;
      }
    }
    if (random() % 8 == 0) {
      std::this_thread::sleep_for(milliseconds(random() % longest));
    }
  }
}

void StressRound::Stop() {
  if (m_options.bFull) {
    m_stage->Stop();
    // Nobody takes from the queue any more: the posters fill it, and wait at its mark until they
    // are told that it is closed.
    ACE_Message_Queue<ACE_MT_SYNCH>& queue = *StageTestAccess::Incoming(*m_stage).msg_queue();
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return queue.is_full(); })) << m_name;
    queue.deactivate();
    JoinPosters();
  } else if (m_stopDuringPosts) {
    m_stage->Stop();
    JoinPosters();
  } else {
    JoinPosters();
    m_stage->Stop();
  }
}

void StressRound::JoinPosters() {
  m_enough = true;
  for (Poster& poster : m_posters) {
    poster.thread.join();
  }
}

void StressRound::Check(const std::set<StressEvent>& alive,
                        const WindowsAgentCommon::StatisticsServer& server,
                        const std::vector<LogLine>& log) {
  SCOPED_TRACE(m_name);
  const auto statistic = [&](const std::string& name) -> std::int64_t {
    for (const auto& group : server.GetSnapshot()) {
      if (group.instance == m_name && group.Find(name) != nullptr) {
        return group.GetInteger(name);
      }
    }
    ADD_FAILURE() << "no statistic " << name;
    return 0;
  };
  const std::vector<StressEvent> taken = m_destination->Taken();
  const std::vector<StressEvent> cached = ReadCache();
  std::set<StressEvent> missing;
  std::int64_t failed = 0;
  for (const Poster& poster : m_posters) {
    missing.insert(poster.accepted.begin(), poster.accepted.end());
    failed += poster.failed;
  }
  const auto accepted = static_cast<std::int64_t>(missing.size());
  std::int64_t held = 0;
  const auto find = [&](const StressEvent& id, const char* place) {
    EXPECT_EQ(missing.erase(id), 1u) << "twice, or never posted: " << id.ToPayload() << place;
  };
  for (const StressEvent& id : taken) {
    find(id, ", taken");
  }
  for (const StressEvent& id : cached) {
    find(id, ", cached");
  }
  for (const StressEvent& id : alive) {
    if (id.round == m_number) {
      find(id, ", in memory");
      ++held;
    }
  }
  CheckOrder(cached);

  m_counts = m_destination->Counts();
  CheckLog(log);
  EXPECT_EQ(failed, m_options.bFull ? static_cast<std::int64_t>(kPosters) : 0);
  EXPECT_EQ(statistic("TotalEventsPosted"), accepted + failed);
  EXPECT_EQ(statistic("TotalEventsFailedToQueue"), failed);
  EXPECT_EQ(statistic("EventsOutgoing"), static_cast<std::int64_t>(taken.size()));
  EXPECT_EQ(statistic("NumberOfRequeues"), m_counts["backpressure"]);
  // Of the events that are nowhere, each was said to be lost, and the other way round.
  EXPECT_EQ(static_cast<std::int64_t>(missing.size()), m_counts["lost"]);
  EXPECT_EQ(statistic("MessagesLost"), m_counts["lost"]);
  EXPECT_EQ(statistic("EventDiskCacheRejects"), m_counts["refusal"]);
  // What the sender holds, what waits in the queue, and the chunk that was being gathered.
  const auto queued =
      static_cast<std::int64_t>(StageTestAccess::Incoming(*m_stage).msg_queue()->message_count());
  const std::int64_t pending = statistic("EventsIncoming") - statistic("EventsOutgoing");
  const std::int64_t gathered = accepted - queued - m_counts["in chunks"];
  EXPECT_GE(gathered, 0);
  EXPECT_EQ(held, queued + pending + gathered);
  m_counts["posted"] = accepted + failed;
  m_counts["held"] = held;
  m_counts["failed"] = failed;
  EXPECT_TRUE(!m_options.bClosed || taken.empty());
  if (m_options.bLong) {
    EXPECT_GT(m_counts["resumed"], 0) << "nothing was delivered after a refusal";
  }
}

// Each poster's events leave in its order, and those in the cache are behind all that were taken.
// Among themselves the files have the order of a clock that steps.
void StressRound::CheckOrder(const std::vector<StressEvent>& cached) {
  std::vector<std::size_t> next(kPosters, 0);
  for (const StressEvent& id : m_destination->Taken()) {
    EXPECT_GE(id.number, next[id.poster]) << "out of order: " << id.ToPayload();
    next[id.poster] = id.number + 1;
  }
  for (const StressEvent& id : cached) {
    EXPECT_GE(id.number, next[id.poster]) << "out of order: " << id.ToPayload();
  }
}

// Counts what the Incoming processor says it did with its chunks.
void StressRound::CheckLog(const std::vector<LogLine>& log) {
  const std::string logger = "Code.StoreAndForwardIncoming." + m_name;
  for (const LogLine& line : log) {
    if (line.logger != logger) {
      continue;
    }
    const std::size_t bracket = line.text.rfind('(');
    if (StartsWith(line.text, kLostText)) {
      EXPECT_EQ(line.level, LogLevel::Warn);
      ++m_counts["refusal"];
      m_counts["lost"] += ReadNumber(line.text, kLostText.size());
    } else if (StartsWith(line.text, "Processing rejected")) {
      ++m_counts["spill"];
      m_counts["in chunks"] += ReadNumber(line.text, bracket + 1);
      // Nothing else than the schedule keeps the chunk of a destination that takes everything.
      m_counts["schedule closed"] += m_schedule && !m_counts.contains("backpressure") ? 1 : 0;
    } else if (line.text.find("(near)") != std::string::npos) {
      ++m_counts["near"];
      m_counts["in chunks"] += ReadNumber(line.text, bracket + 1);
    } else if (line.text.find("(far)") != std::string::npos) {
      ++m_counts["far"];
    }
  }
}

// What the chunk files hold.
std::vector<StressEvent> StressRound::ReadCache() const {
  std::set<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(m_cache)) {
    if (entry.is_regular_file()) {
      files.insert(entry.path());
    }
  }
  std::vector<StressEvent> ids;
  for (const auto& path : files) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    std::vector<ACE_Message_Block*> events;
    EXPECT_TRUE(
        ReadChunk(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), events));
    for (const std::string& payload : TestSupport::PayloadsOf(events)) {
      ids.push_back(StressEvent::FromPayload(payload));
    }
    TestSupport::ReleaseAll(events);
  }
  return ids;
}

}  // namespace OrloStoreAndForward
