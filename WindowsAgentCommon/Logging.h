#pragma once

#include <fmt/printf.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "WindowsAgentCommon/PrintfFormat.h"
#include "WindowsAgentCommon/Secrets.h"

// Messages of the program, for its administrator. They go to standard error and, if set, to a
// file: one line per message with UTC time, level and logger name. Everything here may be used
// from any thread, and nothing here throws into the caller: a message that can't be formatted or
// written is dropped.
namespace WindowsAgentCommon {

enum class LogLevel { Debug, Info, Warn, Error, Off };

namespace Detail {
class LoggerState;
}

// A cheap, copyable handle on a named logger. A default-constructed one drops everything.
class Log {
 public:
  Log() = default;

  bool IsEnabled(LogLevel level) const noexcept;
  void Write(LogLevel level, std::string_view message) const noexcept;

 private:
  friend class LoggerFactory;
  explicit Log(std::shared_ptr<const Detail::LoggerState> state) : m_state(std::move(state)) {}

  std::shared_ptr<const Detail::LoggerState> m_state;
};

struct LoggingOptions {
  // What is written by loggers that `levels` does not name.
  LogLevel level = LogLevel::Info;
  // Logger-name prefix to level; the longest prefix that fits a name decides.
  std::map<std::string, LogLevel> levels;
  // Also append to this file (UTF-8 path); empty: no file. If it can't be opened, an Error line on
  // standard error says so and logging goes on without it.
  std::string file;
  // Whether messages go to standard error.
  bool standardError = true;
};

// Receives every message that its logger's level lets through, on the logging thread.
using LogSink = std::function<void(LogLevel, const std::string& logger, const std::string& text)>;

class LoggerFactory {
 public:
  // The logger of that name; the same name gives the same logger.
  static Log GetLog(const std::string& name);

  // Applies to loggers that exist and to those made later. Before the first call, messages of
  // Info and above go to standard error.
  static void Configure(const LoggingOptions& options);

  // From now on "(hidden)" stands in every message in place of these texts, as HideSecrets says.
  // They stay secret until the process ends.
  static void AddSecrets(const Secrets& secrets);

  // The text as a message would show it, for other places that show it.
  static std::string WithoutSecrets(const std::string& text);

  // The same for a library's text, which may have been cut to a fixed size, as HideCutSecrets says.
  // To be called before the text becomes a part of a message.
  static std::string WithoutCutSecrets(const std::string& text);

  // Adds a further receiver of messages; the number removes it again. When RemoveSink returns,
  // the sink is not running and will not be called any more.
  static int AddSink(LogSink sink);
  static void RemoveSink(int number);
};

// The levels, with printf-style formats that the compiler checks.
class LogFacade {
 public:
  template <typename... Args>
  static void Debug(const Log& log, CheckedFormat<Args...> format, const Args&... args) noexcept {
    Write(log, LogLevel::Debug, format.Get(), args...);
  }
  template <typename... Args>
  static void Info(const Log& log, CheckedFormat<Args...> format, const Args&... args) noexcept {
    Write(log, LogLevel::Info, format.Get(), args...);
  }
  template <typename... Args>
  static void Warn(const Log& log, CheckedFormat<Args...> format, const Args&... args) noexcept {
    Write(log, LogLevel::Warn, format.Get(), args...);
  }
  template <typename... Args>
  static void Error(const Log& log, CheckedFormat<Args...> format, const Args&... args) noexcept {
    Write(log, LogLevel::Error, format.Get(), args...);
  }

 private:
  template <typename... Args>
  static void Write(const Log& log, LogLevel level, std::string_view format,
                    const Args&... args) noexcept {
    if (!log.IsEnabled(level)) {
      return;
    }
    try {
      log.Write(level, fmt::sprintf(format, args...));
    } catch (...) {
      // Out of memory while formatting: the message is lost, the work goes on.
    }
  }
};

}  // namespace WindowsAgentCommon
