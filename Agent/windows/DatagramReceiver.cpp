#include "Agent/DatagramReceiver.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <vector>

namespace OrloAgent {

namespace {

constexpr std::size_t kBatch = 32;
constexpr std::size_t kLongestDatagram = 65'535;

}  // namespace

// The buffer takes every datagram whole, and the cutting is done here: what Windows says of one
// that is longer than the buffer does not come through Asio.
struct DatagramReceiver::Batch {
  std::size_t maxSize;
  std::vector<char> buffer = std::vector<char>(kLongestDatagram);
};

DatagramReceiver::DatagramReceiver(boost::asio::ip::udp::socket& socket, std::size_t maxSize)
    : m_socket(socket), m_batch(std::make_unique<Batch>(Batch{maxSize})) {}

DatagramReceiver::~DatagramReceiver() = default;

std::size_t DatagramReceiver::Receive(const std::function<void(const Datagram&)>& sink) {
  std::size_t count = 0;
  while (count < kBatch) {
    Datagram datagram;
    boost::system::error_code error;
    const std::size_t size =
        m_socket.receive_from(boost::asio::buffer(m_batch->buffer), datagram.peer, 0, error);
    if (error) {
      break;
    }
    datagram.cut = size > m_batch->maxSize;
    datagram.bytes = {m_batch->buffer.data(), std::min(size, m_batch->maxSize)};
    sink(datagram);
    ++count;
  }
  return count;
}

// Windows counts them for the whole machine only.
std::optional<std::uint64_t> DatagramReceiver::GetDropped() const { return std::nullopt; }

}  // namespace OrloAgent
