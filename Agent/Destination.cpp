#include "Agent/Destination.h"

#include "Agent/BufferedDestination.h"
#include "Agent/DatagramDestination.h"
#include "Agent/FallbackDestination.h"
#include "Agent/FileChannel.h"
#include "Agent/KafkaDestination.h"
#include "Agent/RelpDestination.h"
#include "Agent/RotatingChannel.h"
#include "Agent/StdoutChannel.h"
#include "Agent/TcpChannel.h"

namespace OrloAgent {

namespace {

std::unique_ptr<Destination> MakeSyslogDestination(const SyslogDestinationOptions& options,
                                                   const std::string& streamName) {
  if (options.target.transport == Transport::Udp) {
    return std::make_unique<DatagramDestination>(options, streamName);
  }
  BufferedWriterOptions writer;
  writer.sendTimeout = options.sendTimeout;
  return std::make_unique<BufferedDestination>(std::make_unique<TcpChannel>(options, streamName),
                                               options.framing == SyslogFraming::OctetCounted
                                                   ? OutputFraming::OctetCounted
                                                   : OutputFraming::Newline,
                                               writer);
}

}  // namespace

std::vector<EndCounter> Destination::GetCounters() const {
  return {{"events", "Events that were written, or acknowledged where receivers acknowledge",
           GetSentEvents()}};
}

std::unique_ptr<Destination> MakeDestinationOfStream(const StreamOptions& stream) {
  auto first = MakeDestination(stream.destination, stream.name);
  if (!stream.fallback) {
    return first;
  }
  return std::make_unique<FallbackDestination>(
      std::move(first), MakeDestination(stream.fallback->destination, stream.name),
      *stream.fallback, stream.name);
}

std::unique_ptr<Destination> MakeDestination(const DestinationOptions& options,
                                             const std::string& streamName) {
  if (const auto* syslog = std::get_if<SyslogDestinationOptions>(&options)) {
    return MakeSyslogDestination(*syslog, streamName);
  }
  if (const auto* kafka = std::get_if<KafkaDestinationOptions>(&options)) {
    return MakeKafkaDestination(*kafka, streamName);
  }
  if (const auto* relp = std::get_if<RelpDestinationOptions>(&options)) {
    return MakeRelpDestination(*relp, streamName);
  }
  BufferedWriterOptions writer;
  if (const auto* file = std::get_if<FileDestinationOptions>(&options)) {
    writer.sendTimeout = file->sendTimeout;
    auto channel = file->rotation ? MakeRotatingChannel(file->path, *file->rotation, streamName)
                                  : MakeFileChannel(file->path, streamName);
    return std::make_unique<BufferedDestination>(std::move(channel), OutputFraming::Lines, writer);
  }
  writer.sendTimeout = std::get<StdoutDestinationOptions>(options).sendTimeout;
  return std::make_unique<BufferedDestination>(MakeStdoutChannel(streamName), OutputFraming::Lines,
                                               writer);
}

}  // namespace OrloAgent
