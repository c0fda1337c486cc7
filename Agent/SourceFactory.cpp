#include "Agent/SourceFactory.h"

#include "Agent/DatagramSource.h"
#include "Agent/FileSource.h"
#include "Agent/StdinSource.h"
#include "Agent/SyslogSource.h"
#include "Agent/Units.h"

namespace OrloAgent {

std::unique_ptr<Source> MakeSource(const SourceOptions& options,
                                   const std::filesystem::path& positions, EndOfInput endOfInput) {
  if (const auto* standardInput = std::get_if<StdinSourceOptions>(&options)) {
    return std::make_unique<StdinSource>(*standardInput, std::move(endOfInput));
  }
  if (const auto* files = std::get_if<FileSourceOptions>(&options)) {
    return std::make_unique<FileSource>(*files, positions);
  }
  const auto& syslog = std::get<SyslogSourceOptions>(options);
  if (syslog.listen.transport == Transport::Udp) {
    return std::make_unique<DatagramSource>(syslog);
  }
  return std::make_unique<SyslogSource>(syslog);
}

std::string DescribeSource(const SourceOptions& options) {
  if (std::holds_alternative<StdinSourceOptions>(options)) {
    return "stdin";
  }
  if (const auto* files = std::get_if<FileSourceOptions>(&options)) {
    std::string text;
    for (const std::string& path : files->paths) {
      text += (text.empty() ? "" : ", ") + path;
    }
    return text;
  }
  return ToText(std::get<SyslogSourceOptions>(options).listen);
}

}  // namespace OrloAgent
