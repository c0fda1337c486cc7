#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace OrloAgent {

// For an acceptor that is open and not bound yet: no other program listens on the same address at
// the same time, and an agent that is started again can listen at once, whatever has become of the
// connections of the one before. Throws boost::system::system_error.
void ClaimAddress(boost::asio::ip::tcp::acceptor& acceptor);

}  // namespace OrloAgent
