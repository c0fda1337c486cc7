#include "WindowsAgentCommon/Logging.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <atomic>
#include <cstddef>
#include <mutex>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "WindowsAgentCommon/Text.h"

namespace WindowsAgentCommon {

namespace {

constexpr std::string_view ToText(LogLevel level) {
  switch (level) {
    case LogLevel::Debug:
      return "Debug";
    case LogLevel::Info:
      return "Info";
    case LogLevel::Warn:
      return "Warn";
    case LogLevel::Error:
      return "Error";
    case LogLevel::Off:
      break;
  }
  return "Off";
}

constexpr spdlog::level::level_enum ToBackendLevel(LogLevel level) {
  switch (level) {
    case LogLevel::Debug:
      return spdlog::level::debug;
    case LogLevel::Info:
      return spdlog::level::info;
    case LogLevel::Warn:
      return spdlog::level::warn;
    case LogLevel::Error:
      return spdlog::level::err;
    case LogLevel::Off:
      break;
  }
  return spdlog::level::off;
}

// The backend's own level names are in lower case.
class LevelFlag : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& message, const std::tm& /*time*/,
              spdlog::memory_buf_t& line) override {
    std::string_view text = ToText(LogLevel::Error);
    for (const LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Warn}) {
      if (ToBackendLevel(level) == message.level) {
        text = ToText(level);
      }
    }
    line.append(text.data(), text.data() + text.size());
  }

  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<LevelFlag>();
  }
};

std::unique_ptr<spdlog::formatter> MakeFormatter() {
  auto formatter =
      std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::utc, "\n");
  formatter->add_flag<LevelFlag>('*').set_pattern("%Y-%m-%dT%H:%M:%S.%eZ %* %n: %v");
  return formatter;
}

// One message is one line, and no message can steer a terminal: control characters are written as
// escapes. Those above U+007F take two bytes in UTF-8, of which the first is 0xC2.
std::string EscapeControlCharacters(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0u;
    if (byte == '\n') {
      result += "\\n";
    } else if (byte == '\r') {
      result += "\\r";
    } else if (byte == '\t') {
      result += "\\t";
    } else if (byte < 0x20 || byte == 0x7F) {
      result += fmt::sprintf("\\x%02x", static_cast<unsigned>(byte));
    } else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
      result += fmt::sprintf("\\u%04x", next);
      ++i;
    } else {
      result += text[i];
    }
  }
  return result;
}

using Backends = std::vector<std::shared_ptr<spdlog::sinks::sink>>;

std::shared_ptr<spdlog::sinks::sink> MakeStandardError() {
  auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  sink->set_formatter(MakeFormatter());
  return sink;
}

// File names are UTF-8; the backend takes wide ones on Windows.
template <typename FileName>
FileName ToFileName(const std::string& name) {
  if constexpr (std::is_same_v<FileName, std::wstring>) {
    return ToWide(name);
  } else {
    return name;
  }
}

// A message that is logged by a sink does not go to the sinks again.
thread_local bool insideSink = false;

class SinkScope {
 public:
  SinkScope() { insideSink = true; }
  ~SinkScope() { insideSink = false; }
  SinkScope(const SinkScope&) = delete;
  SinkScope& operator=(const SinkScope&) = delete;
};

}  // namespace

namespace Detail {

class LoggerState {
 public:
  LoggerState(std::string name, LogLevel level)
      : m_name(std::move(name)), m_escapedName(EscapeControlCharacters(m_name)), m_level(level) {}

  const std::string& GetName() const { return m_name; }
  const std::string& GetEscapedName() const { return m_escapedName; }

  bool IsEnabled(LogLevel level) const noexcept {
    return level != LogLevel::Off && level >= m_level.load(std::memory_order_relaxed);
  }
  void SetLevel(LogLevel level) { m_level.store(level, std::memory_order_relaxed); }

 private:
  const std::string m_name;
  const std::string m_escapedName;
  std::atomic<LogLevel> m_level;
};

// Everything that the process's loggers share.
class LoggingCore {
 public:
  // Never destroyed: the destructors of other static objects may still log.
  static LoggingCore& Get() {
    static LoggingCore* const core = new LoggingCore;
    return *core;
  }

  std::shared_ptr<const LoggerState> GetLogger(const std::string& name) {
    const std::lock_guard guard(m_lock);
    std::shared_ptr<LoggerState>& logger = m_loggers[name];
    if (!logger) {
      logger = std::make_shared<LoggerState>(name, FindLevel(name));
    }
    return logger;
  }

  void Configure(const LoggingOptions& options) {
    auto backends = std::make_shared<Backends>();
    if (options.standardError) {
      backends->push_back(MakeStandardError());
    }
    std::string fileError;
    if (!options.file.empty()) {
      try {
        backends->push_back(std::make_shared<spdlog::sinks::basic_file_sink_mt>(
            ToFileName<spdlog::filename_t>(options.file)));
        backends->back()->set_formatter(MakeFormatter());
      } catch (const std::exception& error) {
        fileError = error.what();
      }
    }
    {
      const std::lock_guard writing(m_writeLock);
      const std::lock_guard guard(m_lock);
      m_level = options.level;
      m_levels = options.levels;
      m_backends = std::move(backends);
      for (const auto& [name, logger] : m_loggers) {
        logger->SetLevel(FindLevel(name));
      }
    }
    if (!fileError.empty()) {
      ReportFileError(options.file, fileError);
    }
  }

  void AddSecrets(const Secrets& secrets) {
    const std::lock_guard guard(m_lock);
    m_secrets.insert(secrets.begin(), secrets.end());
  }

  std::string WithoutSecrets(std::string_view text) {
    const std::lock_guard guard(m_lock);
    return HideSecrets(text, m_secrets);
  }

  std::string WithoutCutSecrets(std::string_view text) {
    const std::lock_guard guard(m_lock);
    return HideCutSecrets(text, m_secrets);
  }

  void Write(const LoggerState& logger, LogLevel level, std::string_view message) {
    const std::string text = WithoutSecrets(message);
    const std::string line = EscapeControlCharacters(text);
    {
      const std::lock_guard writing(m_writeLock);
      std::shared_ptr<const Backends> backends;
      {
        const std::lock_guard guard(m_lock);
        backends = m_backends;
      }
      WriteLine(*backends, logger.GetEscapedName(), level, line);
    }
    CallSinks(logger, level, text);
  }

  int AddSink(LogSink sink) {
    const std::lock_guard guard(m_sinkLock);
    m_sinks.emplace(++m_lastSink, std::move(sink));
    m_hasSinks.store(true, std::memory_order_relaxed);
    return m_lastSink;
  }

  void RemoveSink(int number) {
    const std::lock_guard guard(m_sinkLock);
    m_sinks.erase(number);
    m_hasSinks.store(!m_sinks.empty(), std::memory_order_relaxed);
  }

 private:
  LoggingCore() : m_backends(std::make_shared<Backends>(Backends{MakeStandardError()})) {}

  // Requires m_lock.
  LogLevel FindLevel(std::string_view name) const {
    LogLevel level = m_level;
    std::size_t longest = 0;
    for (const auto& [prefix, prefixLevel] : m_levels) {
      if (prefix.size() >= longest && name.substr(0, prefix.size()) == prefix) {
        longest = prefix.size();
        level = prefixLevel;
      }
    }
    return level;
  }

  static void WriteLine(const Backends& backends, const std::string& logger, LogLevel level,
                        const std::string& line) {
    const spdlog::details::log_msg message(spdlog::string_view_t(logger.data(), logger.size()),
                                           ToBackendLevel(level),
                                           spdlog::string_view_t(line.data(), line.size()));
    for (const auto& backend : backends) {
      try {
        backend->log(message);
        // What was logged last before a crash is what one wants to read.
        backend->flush();
      } catch (...) {
        // A full disk must not keep the message from the other outputs.
      }
    }
  }

  void ReportFileError(const std::string& file, const std::string& error) {
    const Backends standardError{MakeStandardError()};
    WriteLine(
        standardError, "Code.Logging", LogLevel::Error,
        EscapeControlCharacters(WithoutSecrets(fmt::sprintf(
            "The log file \"%s\" can't be opened: %s. Logging goes on without it.", file, error))));
  }

  void CallSinks(const LoggerState& logger, LogLevel level, std::string_view text) {
    if (insideSink || !m_hasSinks.load(std::memory_order_relaxed)) {
      return;
    }
    // Held during the calls, so that RemoveSink waits for them.
    const std::lock_guard guard(m_sinkLock);
    const SinkScope scope;
    const std::string copy(text);
    for (const auto& [number, sink] : m_sinks) {
      try {
        sink(level, logger.GetName(), copy);
      } catch (...) {
        // A receiver's failure is its own.
      }
    }
  }

  // Held while a line is written and while the outputs are exchanged, and taken before m_lock. The
  // old and the new output may be the same file, and the C runtime of Windows appends by looking
  // for the end first: two of them at a time would overwrite each other's lines.
  std::mutex m_writeLock;

  std::mutex m_lock;
  // Guarded by m_lock:
  LogLevel m_level = LogLevel::Info;
  std::map<std::string, LogLevel> m_levels;
  std::unordered_map<std::string, std::shared_ptr<LoggerState>> m_loggers;
  std::shared_ptr<const Backends> m_backends;
  Secrets m_secrets;

  std::mutex m_sinkLock;
  // Guarded by m_sinkLock:
  std::map<int, LogSink> m_sinks;
  int m_lastSink = 0;

  // Spares the lock as long as nobody listens.
  std::atomic<bool> m_hasSinks{false};
};

}  // namespace Detail

bool Log::IsEnabled(LogLevel level) const noexcept {
  return m_state != nullptr && m_state->IsEnabled(level);
}

void Log::Write(LogLevel level, std::string_view message) const noexcept {
  if (!IsEnabled(level)) {
    return;
  }
  try {
    Detail::LoggingCore::Get().Write(*m_state, level, message);
  } catch (...) {
    // Out of memory: the message is lost, the work goes on.
  }
}

Log LoggerFactory::GetLog(const std::string& name) {
  try {
    return Log(Detail::LoggingCore::Get().GetLogger(name));
  } catch (...) {
    return Log();
  }
}

void LoggerFactory::Configure(const LoggingOptions& options) {
  try {
    Detail::LoggingCore::Get().Configure(options);
  } catch (...) {
    // Out of memory: logging goes on as it was.
  }
}

void LoggerFactory::AddSecrets(const Secrets& secrets) {
  Detail::LoggingCore::Get().AddSecrets(secrets);
}

std::string LoggerFactory::WithoutSecrets(const std::string& text) {
  return Detail::LoggingCore::Get().WithoutSecrets(text);
}

std::string LoggerFactory::WithoutCutSecrets(const std::string& text) {
  return Detail::LoggingCore::Get().WithoutCutSecrets(text);
}

int LoggerFactory::AddSink(LogSink sink) {
  try {
    return Detail::LoggingCore::Get().AddSink(std::move(sink));
  } catch (...) {
    return 0;
  }
}

void LoggerFactory::RemoveSink(int number) {
  try {
    Detail::LoggingCore::Get().RemoveSink(number);
  } catch (...) {
    // Only a lock that can't be taken could fail here.
  }
}

}  // namespace WindowsAgentCommon
