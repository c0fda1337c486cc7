#include "tests/Monitor/posix/ServedConnections.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <string>

namespace TestSupport {

namespace {

bool IsServed(int descriptor, std::uint16_t port) {
  sockaddr_in local{};
  sockaddr_in remote{};
  socklen_t localSize = sizeof(local);
  socklen_t remoteSize = sizeof(remote);
  // A socket that listens has no other side.
  return getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &localSize) == 0 &&
         getpeername(descriptor, reinterpret_cast<sockaddr*>(&remote), &remoteSize) == 0 &&
         local.sin_family == AF_INET && ntohs(local.sin_port) == port;
}

}  // namespace

std::size_t CountServedConnections(std::uint16_t port) {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    count += IsServed(std::stoi(entry.path().filename().string()), port) ? 1 : 0;
  }
  return count;
}

}  // namespace TestSupport
