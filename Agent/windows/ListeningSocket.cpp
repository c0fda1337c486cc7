#include "Agent/ListeningSocket.h"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

namespace OrloAgent {

// Windows does not count connections that are fading away. Its SO_REUSEADDR would let others listen
// on the same address and take our connections; this option forbids it to those who set that one.
void ClaimAddress(boost::asio::ip::tcp::acceptor& acceptor) {
  const BOOL bExclusive = TRUE;
  if (::setsockopt(acceptor.native_handle(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
                   reinterpret_cast<const char*>(&bExclusive), sizeof(bExclusive)) != 0) {
    throw boost::system::system_error(::WSAGetLastError(),
                                      boost::asio::error::get_system_category());
  }
}

}  // namespace OrloAgent
