#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace TestSupport {

// A port of this machine where nobody listens, and where nobody else can as long as this lives.
class RefusingPort {
 public:
  RefusingPort()
      : m_socket(m_context, {boost::asio::ip::address_v4::loopback(), 0}),
        m_number(m_socket.local_endpoint().port()) {}

  unsigned short Number() const { return m_number; }

 private:
  boost::asio::io_context m_context;
  boost::asio::ip::tcp::socket m_socket;  // bound, and no more
  const unsigned short m_number;
};

}  // namespace TestSupport
