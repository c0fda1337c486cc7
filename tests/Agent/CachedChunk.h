#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace TestSupport {

// Writes a chunk as an earlier run of the agent has left it, of events without heads; gives its
// path.
inline std::filesystem::path WriteChunkOfEarlierRun(const std::filesystem::path& dataDirectory,
                                                    const std::string& stream,
                                                    const std::vector<std::string>& payloads) {
  std::string bytes;
  const auto append = [&](std::size_t number) {
    for (int shift = 0; shift < 32; shift += 8) {
      bytes.push_back(static_cast<char>(number >> shift & 0xff));
    }
  };
  append(payloads.size());
  for (const std::string& payload : payloads) {
    append(0);
    append(payload.size());
    bytes += payload;
  }
  bytes.resize(4096);
  const auto minute = dataDirectory / "Events" / stream / "2016-03-07-14-05";
  std::filesystem::create_directories(minute);
  std::ofstream(minute / "07", std::ios::binary) << bytes;
  return minute / "07";
}

}  // namespace TestSupport
