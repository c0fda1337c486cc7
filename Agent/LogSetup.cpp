#include "Agent/LogSetup.h"

#include <map>

#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using WindowsAgentCommon::LogLevel;

namespace {

LogLevel ToLevel(const std::string& name) {
  static const std::map<std::string, LogLevel> levels{{"debug", LogLevel::Debug},
                                                      {"info", LogLevel::Info},
                                                      {"warn", LogLevel::Warn},
                                                      {"error", LogLevel::Error},
                                                      {"off", LogLevel::Off}};
  return levels.at(name);
}

}  // namespace

void ConfigureLogging(const LogOptions& options) {
  WindowsAgentCommon::LoggingOptions logging;
  logging.level = ToLevel(options.level);
  for (const auto& [prefix, level] : options.levels) {
    logging.levels[prefix] = ToLevel(level);
  }
  logging.file = options.file;
  WindowsAgentCommon::LoggerFactory::Configure(logging);
}

}  // namespace OrloAgent
