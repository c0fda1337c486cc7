#include "Agent/DatagramReceiver.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <vector>

namespace OrloAgent {

namespace {

constexpr std::size_t kBatch = 32;
constexpr std::size_t kLongestDatagram = 65'535;

}  // namespace

struct DatagramReceiver::Batch {
  std::vector<char> buffer;
};

DatagramReceiver::DatagramReceiver(boost::asio::ip::udp::socket& socket, std::size_t maxSize)
    : m_socket(socket),
      m_batch(
          std::make_unique<Batch>(Batch{std::vector<char>(std::min(maxSize, kLongestDatagram))})) {}

DatagramReceiver::~DatagramReceiver() = default;

std::size_t DatagramReceiver::Receive(const std::function<void(const Datagram&)>& sink) {
  std::size_t count = 0;
  while (count < kBatch) {
    Datagram datagram;
    boost::system::error_code error;
    const std::size_t size =
        m_socket.receive_from(boost::asio::buffer(m_batch->buffer), datagram.peer, 0, error);
    datagram.cut = error == boost::asio::error::message_size;
    if (error && !datagram.cut) {
      break;
    }
    datagram.bytes = {m_batch->buffer.data(), datagram.cut ? m_batch->buffer.size() : size};
    sink(datagram);
    ++count;
  }
  return count;
}

// Windows counts them for the whole machine only.
std::optional<std::uint64_t> DatagramReceiver::GetDropped() const { return std::nullopt; }

}  // namespace OrloAgent
