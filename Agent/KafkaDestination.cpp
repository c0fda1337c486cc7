#include "Agent/KafkaDestination.h"

#include <librdkafka/rdkafka.h>

#include <array>
#include <atomic>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "Agent/OutageReasons.h"
#include "Agent/WindowDestination.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

constexpr milliseconds kPoll{100};

// How long a producer that has failed is left before the next one is made.
constexpr std::chrono::seconds kBetweenProducers{1};
constexpr milliseconds kLongestEnd{1'000};

// What the library is given for the text of an error. It can hold several values of the settings.
constexpr std::size_t kLongestProblem = 64 * 1024;

// The library's text as it may be shown. It cuts texts itself, at sizes of its own.
std::string Shown(const std::string& text) {
  return WindowsAgentCommon::LoggerFactory::WithoutCutSecrets(text);
}

struct FreeProducer {
  void operator()(rd_kafka_t* producer) const { rd_kafka_destroy(producer); }
};
using Producer = std::unique_ptr<rd_kafka_t, FreeProducer>;

const std::set<std::string>& ReservedProperties() {
  static const std::set<std::string> names{"bootstrap.servers",     "metadata.broker.list",
                                           "enable.idempotence",    "acks",
                                           "request.required.acks", "message.timeout.ms",
                                           "delivery.timeout.ms",   "queue.buffering.max.messages",
                                           "transactional.id"};
  return names;
}

class KafkaDestination : public WindowDestination {
 public:
  KafkaDestination(const KafkaDestinationOptions& options, const std::string& streamName);
  ~KafkaDestination() override { Stop(); }

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;
  void Stop() override;
  std::uint64_t GetLostEvents() const override { return m_lost.load(); }
  std::vector<EndCounter> GetCounters() const override;

 private:
  enum class Offer { Taken, Full, TooLarge };

  Producer MakeProducer();
  Offer Produce(rd_kafka_t* producer, std::uint64_t number);
  bool TakeEvent(MessageBlockPtr& event) override;
  void Run() override;
  void Replace();
  void OnDelivery(const rd_kafka_message_t& message);
  void OnAcknowledged(std::uint64_t number);
  void OnRefused(std::uint64_t number, rd_kafka_resp_err_t error);
  void OnError(rd_kafka_resp_err_t error, const std::string& reason);
  void ReportTooLarge(std::size_t size);

  const KafkaDestinationOptions m_options;
  const std::string m_key;
  WindowsAgentCommon::Log m_log;

  // Guarded by the lock. Null while one that has failed is being replaced.
  Producer m_producer;
  bool m_broken = false;
  // What is the matter: the cluster can't be reached, or it refuses events. Over when an event is
  // acknowledged, and none before it waits that was refused.
  OutageReasons m_troubles;
  bool m_away = false;              // the cluster can't be reached
  std::uint64_t m_lastRefused = 0;  // the event

  std::atomic<std::uint64_t> m_lost{0};
  std::atomic<std::uint64_t> m_refusedEvents{0};
  std::atomic<std::uint64_t> m_sentAgain{0};
  std::atomic<std::uint64_t> m_outages{0};
  std::atomic<std::uint64_t> m_failedHandshakes{0};
  std::atomic<std::uint64_t> m_failedLogins{0};
};

KafkaDestination::KafkaDestination(const KafkaDestinationOptions& options,
                                   const std::string& streamName)
    : WindowDestination("KafkaDestination", options.sendTimeout),
      m_options(options),
      m_key(options.key.empty() ? streamName : options.key),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.KafkaDestination." + streamName)),
      m_producer(MakeProducer()) {}

Producer KafkaDestination::MakeProducer() {
  std::vector<char> problem(kLongestProblem);
  const auto refuse = [&](const std::string& what) {
    throw WindowsAgentCommon::InitializationException("KafkaDestination",
                                                      "OrloAgent::KafkaDestination::MakeProducer",
                                                      __LINE__, "Can't send to Kafka: " + what);
  };
  std::unique_ptr<rd_kafka_conf_t, void (*)(rd_kafka_conf_t*)> settings(rd_kafka_conf_new(),
                                                                        &rd_kafka_conf_destroy);
  const auto set = [&](const std::string& name, const std::string& value) {
    // Not the library's own words: they hold the value, which can be a secret.
    switch (rd_kafka_conf_set(settings.get(), name.c_str(), value.c_str(), problem.data(),
                              problem.size())) {
      case RD_KAFKA_CONF_OK:
        break;
      case RD_KAFKA_CONF_UNKNOWN:
        refuse("there is no property \"" + name + "\"");
        break;
      default:
        refuse("the property \"" + name + "\" can't have the value that it was given");
    }
  };
  set("client.id", "orlo-agent");
  for (const auto& [name, value] : m_options.properties) {
    set(name, value);
  }
  set("bootstrap.servers", m_options.brokers);
  set("enable.idempotence", "true");
  set("acks", "all");
  // Events are kept until they are acknowledged, however long that takes.
  set("message.timeout.ms", "0");
  set("queue.buffering.max.messages", std::to_string(m_options.window + 1));
  rd_kafka_conf_set_opaque(settings.get(), this);
  rd_kafka_conf_set_dr_msg_cb(settings.get(),
                              [](rd_kafka_t*, const rd_kafka_message_t* message, void* self) {
                                static_cast<KafkaDestination*>(self)->OnDelivery(*message);
                              });
  rd_kafka_conf_set_error_cb(settings.get(), [](rd_kafka_t*, int error, const char* reason,
                                                void* self) {
    static_cast<KafkaDestination*>(self)->OnError(static_cast<rd_kafka_resp_err_t>(error), reason);
  });
  // The library repeats itself with every attempt to connect; what matters comes by the callbacks.
  rd_kafka_conf_set_log_cb(
      settings.get(), [](const rd_kafka_t* producer, int, const char* facility, const char* text) {
        const auto* const self = static_cast<const KafkaDestination*>(rd_kafka_opaque(producer));
        LogFacade::Debug(self->m_log, "%s: %s", std::string(facility), Shown(text));
      });
  Producer producer(
      rd_kafka_new(RD_KAFKA_PRODUCER, settings.get(), problem.data(), problem.size()));
  if (!producer) {
    refuse("the settings don't fit together (" + Shown(problem.data()) + ")");
  }
  settings.release();  // the producer's now
  return producer;
}

void KafkaDestination::Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) {
  WindowDestination::Initialize(environment);
  LogFacade::Info(m_log, "Sending to topic %s of %s.", m_options.topic, m_options.brokers);
}

std::vector<EndCounter> KafkaDestination::GetCounters() const {
  return Join(
      Destination::GetCounters(),
      {
          {"events_lost", "Events that are larger than the cluster takes", m_lost},
          {"events_refused", "Answers that refused an event", m_refusedEvents},
          {"events_sent_again", "Events that were sent once more, for want of an acknowledgement",
           m_sentAgain},
          {"outages", "Times that the cluster could not be reached", m_outages},
          {"handshakes_failed", "Connections closed because they were not secured as demanded",
           m_failedHandshakes},
          {"logins_failed", "Log-ins that were refused", m_failedLogins},
      });
}

bool KafkaDestination::TakeEvent(MessageBlockPtr& event) {
  if (!m_producer || m_broken || m_window.GetSize() >= m_options.window) {
    return false;
  }
  const std::uint64_t number = m_window.Add(std::move(event));
  const Offer offer = Produce(m_producer.get(), number);
  if (offer == Offer::TooLarge) {
    ++m_lost;
    ReportTooLarge(m_window.GetMessage(number).size());
    m_window.TakeBackLast();
  } else if (offer == Offer::Full) {
    event = m_window.TakeBackLast();
  }
  CountEvents();
  return offer != Offer::Full;
}

// The library reads the message where it lies; it stays there until it is acknowledged.
KafkaDestination::Offer KafkaDestination::Produce(rd_kafka_t* producer, std::uint64_t number) {
  const std::string_view message = m_window.GetMessage(number);
  std::array<rd_kafka_vu_t, 4> values{};
  values[0].vtype = RD_KAFKA_VTYPE_TOPIC;
  values[0].u.cstr = m_options.topic.c_str();
  values[1].vtype = RD_KAFKA_VTYPE_KEY;
  values[1].u.mem = {const_cast<char*>(m_key.data()), m_key.size()};
  values[2].vtype = RD_KAFKA_VTYPE_VALUE;
  values[2].u.mem = {const_cast<char*>(message.data()), message.size()};
  // The number travels as the pointer that comes back with the acknowledgement.
  values[3].vtype = RD_KAFKA_VTYPE_OPAQUE;
  values[3].u.ptr = reinterpret_cast<void*>(static_cast<std::uintptr_t>(number));
  const std::unique_ptr<rd_kafka_error_t, void (*)(rd_kafka_error_t*)> error(
      rd_kafka_produceva(producer, values.data(), values.size()), &rd_kafka_error_destroy);
  switch (rd_kafka_error_code(error.get())) {
    case RD_KAFKA_RESP_ERR_NO_ERROR:
      return Offer::Taken;
    case RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE:
      return Offer::TooLarge;
    case RD_KAFKA_RESP_ERR__QUEUE_FULL:
      return Offer::Full;
    default:
      // The producer is of no use any more.
      m_broken = true;
      return Offer::Full;
  }
}

void KafkaDestination::Run() {
  auto nextProducer = steady_clock::now();
  while (!m_stop) {
    rd_kafka_poll(m_producer.get(), static_cast<int>(kPoll.count()));
    bool broken = false;
    {
      const std::lock_guard lock(m_lock);
      broken = m_broken;
    }
    if (broken && steady_clock::now() >= nextProducer) {
      Replace();
      nextProducer = steady_clock::now() + kBetweenProducers;
    }
  }
}

// A producer that has given up an event never sends those behind it in order: all that is
// unacknowledged goes to a new one.
void KafkaDestination::Replace() {
  Producer made;
  try {
    made = MakeProducer();
  } catch (const WindowsAgentCommon::InitializationException& error) {
    LogFacade::Warn(m_log, "%s; trying again.", std::string(error.what()));
    return;
  }
  // What comes back from the old one while it ends is acknowledged, or stays in the window.
  rd_kafka_purge(m_producer.get(), RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
  rd_kafka_flush(m_producer.get(), static_cast<int>(kLongestEnd.count()));
  Producer old;
  {
    const std::lock_guard lock(m_lock);
    old = std::move(m_producer);
  }
  old.reset();
  const std::lock_guard lock(m_lock);
  m_broken = false;
  m_window.Rewind();
  m_sentAgain += m_window.GetUnacknowledged();
  CountEvents();
  const std::uint64_t end = m_window.GetFirst() + m_window.GetSize();
  for (std::uint64_t number = m_window.GetFirst(); number < end && !m_broken; ++number) {
    m_broken = m_window.IsUnacknowledged(number) && Produce(made.get(), number) != Offer::Taken;
  }
  m_producer = std::move(made);
  m_room.notify_all();
}

void KafkaDestination::OnDelivery(const rd_kafka_message_t& message) {
  const auto number = static_cast<std::uint64_t>(
      reinterpret_cast<std::uintptr_t>(message._private));  // NOLINT: the library's name
  const std::lock_guard lock(m_lock);
  if (message.err == RD_KAFKA_RESP_ERR_NO_ERROR) {
    OnAcknowledged(number);
  } else if (message.err == RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE) {
    // It would be refused again and again, and hold up all others.
    if (m_window.GiveUp(number)) {
      ++m_lost;
      ReportTooLarge(message.len);
    }
  } else {
    // The first only: those behind it come back with it.
    if (!m_broken && !m_stop) {
      OnRefused(number, message.err);
    }
    m_broken = true;
  }
  CountEvents();
  m_room.notify_all();
}

void KafkaDestination::OnAcknowledged(std::uint64_t number) {
  m_window.Acknowledge(number);
  m_away = false;
  // Not those before one that is refused again and again.
  if (m_troubles.HasBegun() && m_window.GetFirst() > m_lastRefused) {
    m_troubles.End();
    LogFacade::Info(m_log, "The cluster acknowledges events again.");
  }
}

void KafkaDestination::OnRefused(std::uint64_t number, rd_kafka_resp_err_t error) {
  ++m_refusedEvents;
  m_away = false;
  m_lastRefused = number;
  if (m_troubles.Note(rd_kafka_err2name(error), steady_clock::now())) {
    LogFacade::Warn(m_log,
                    "The cluster does not take an event (%s); %d that are not acknowledged are "
                    "sent again.",
                    std::string(rd_kafka_err2str(error)), m_window.GetUnacknowledged());
  }
}

void KafkaDestination::OnError(rd_kafka_resp_err_t error, const std::string& reason) {
  const std::lock_guard lock(m_lock);
  if (error == RD_KAFKA_RESP_ERR__FATAL) {
    m_broken = true;
  }
  const bool matters = error == RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN ||
                       error == RD_KAFKA_RESP_ERR__AUTHENTICATION ||
                       error == RD_KAFKA_RESP_ERR__SSL || error == RD_KAFKA_RESP_ERR__RESOLVE;
  m_failedHandshakes += error == RD_KAFKA_RESP_ERR__SSL ? 1 : 0;
  m_failedLogins += error == RD_KAFKA_RESP_ERR__AUTHENTICATION ? 1 : 0;
  // That all brokers are down follows every other reason.
  if (!matters || (m_away && error == RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN)) {
    return;
  }
  const bool isFirst = !std::exchange(m_away, true);
  m_outages += isFirst ? 1 : 0;
  // By the code: the text holds times.
  if (!m_troubles.Note(rd_kafka_err2name(error), steady_clock::now())) {
    return;
  }
  if (isFirst) {
    LogFacade::Warn(m_log, "%s can't be reached (%s); events wait until it can.", m_options.brokers,
                    Shown(reason));
  } else {
    LogFacade::Warn(m_log, "%s still can't be reached, now for another reason (%s).",
                    m_options.brokers, Shown(reason));
  }
}

void KafkaDestination::ReportTooLarge(std::size_t size) {
  LogFacade::Error(m_log,
                   "An event of %d bytes is larger than the cluster takes (message.max.bytes), and "
                   "is lost.",
                   size);
}

void KafkaDestination::Stop() {
  m_refusing = true;
  m_stop = true;
  // The thread may have taken the producer away to replace it.
  if (m_thread.joinable()) {
    m_thread.join();
  }
  if (!m_producer) {
    return;
  }
  rd_kafka_flush(m_producer.get(), static_cast<int>(kLongestEnd.count()));
  const std::uint64_t unacknowledged = GetUnsentEvents();
  if (unacknowledged > 0) {
    LogFacade::Warn(m_log,
                    "%d events were not acknowledged; the cluster may have some of them or none.",
                    unacknowledged);
  }
  rd_kafka_purge(m_producer.get(), RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
  rd_kafka_flush(m_producer.get(), static_cast<int>(kLongestEnd.count()));
  m_producer.reset();
}

}  // namespace

bool IsKafkaAvailable() { return true; }

bool IsReservedKafkaProperty(const std::string& name) {
  return ReservedProperties().contains(name);
}

std::unique_ptr<Destination> MakeKafkaDestination(const KafkaDestinationOptions& options,
                                                  const std::string& streamName) {
  return std::make_unique<KafkaDestination>(options, streamName);
}

}  // namespace OrloAgent
