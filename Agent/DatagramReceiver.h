#pragma once

#include <boost/asio/ip/udp.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace OrloAgent {

struct Datagram {
  // Valid during the call that hands it over.
  std::string_view bytes;
  // The datagram was longer than the receiver takes; this is its beginning.
  bool cut = false;
  boost::asio::ip::udp::endpoint peer;
};

// Takes the datagrams of a socket, many in one call where the system can do that. One thread.
class DatagramReceiver {
 public:
  // `socket` is non-blocking, and outlives the receiver. A datagram longer than `maxSize` is cut.
  DatagramReceiver(boost::asio::ip::udp::socket& socket, std::size_t maxSize);
  ~DatagramReceiver();

  // Hands over what has arrived already, a batch at most, and gives how many they were; 0: nothing
  // has arrived. Errors that a datagram of ours could have caused do not exist on a socket that
  // only receives, so any error counts as nothing.
  std::size_t Receive(const std::function<void(const Datagram&)>& sink);

  // How many datagrams the system has dropped since the socket was opened because its buffer was
  // full; nothing where the system does not tell.
  std::optional<std::uint64_t> GetDropped() const;

 private:
  struct Batch;

  boost::asio::ip::udp::socket& m_socket;
  std::unique_ptr<Batch> m_batch;
};

}  // namespace OrloAgent
