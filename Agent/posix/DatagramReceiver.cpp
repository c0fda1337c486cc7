#include "Agent/DatagramReceiver.h"

#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace OrloAgent {

namespace {

constexpr std::size_t kBatch = 32;

// No datagram of IPv4 or IPv6 without jumbograms is longer.
constexpr std::size_t kLongestDatagram = 65'535;

}  // namespace

struct DatagramReceiver::Batch {
  explicit Batch(std::size_t maxSize) : size(std::min(maxSize, kLongestDatagram)) {
    buffer.resize(kBatch * size);
    for (std::size_t i = 0; i < kBatch; ++i) {
      pieces[i] = {buffer.data() + i * size, size};
      messages[i].msg_hdr.msg_iov = &pieces[i];
      messages[i].msg_hdr.msg_iovlen = 1;
      messages[i].msg_hdr.msg_name = &peers[i];
    }
  }

  const std::size_t size;
  std::vector<char> buffer;
  std::array<iovec, kBatch> pieces{};
  std::array<sockaddr_storage, kBatch> peers{};
  std::array<mmsghdr, kBatch> messages{};
};

DatagramReceiver::DatagramReceiver(boost::asio::ip::udp::socket& socket, std::size_t maxSize)
    : m_socket(socket), m_batch(std::make_unique<Batch>(maxSize)) {}

DatagramReceiver::~DatagramReceiver() = default;

std::size_t DatagramReceiver::Receive(const std::function<void(const Datagram&)>& sink) {
  for (mmsghdr& message : m_batch->messages) {
    message.msg_hdr.msg_namelen = sizeof(sockaddr_storage);
  }
  const int count =
      ::recvmmsg(m_socket.native_handle(), m_batch->messages.data(), kBatch, MSG_DONTWAIT, nullptr);
  if (count <= 0) {
    return 0;
  }
  const auto received = static_cast<std::size_t>(count);
  for (std::size_t i = 0; i < received; ++i) {
    const mmsghdr& message = m_batch->messages[i];
    Datagram datagram;
    datagram.bytes = {static_cast<const char*>(m_batch->pieces[i].iov_base), message.msg_len};
    datagram.cut = (message.msg_hdr.msg_flags & MSG_TRUNC) != 0;
    const std::size_t length =
        std::min<std::size_t>(message.msg_hdr.msg_namelen, datagram.peer.capacity());
    std::memcpy(datagram.peer.data(), &m_batch->peers[i], length);
    datagram.peer.resize(length);
    sink(datagram);
  }
  return received;
}

std::optional<std::uint64_t> DatagramReceiver::GetDropped() const {
  std::array<std::uint32_t, SK_MEMINFO_VARS> information{};
  socklen_t length = sizeof information;
  if (::getsockopt(m_socket.native_handle(), SOL_SOCKET, SO_MEMINFO, information.data(), &length) !=
          0 ||
      length <= SK_MEMINFO_DROPS * sizeof(std::uint32_t)) {
    return std::nullopt;
  }
  return information[SK_MEMINFO_DROPS];
}

}  // namespace OrloAgent
