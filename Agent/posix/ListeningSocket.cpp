#include "Agent/ListeningSocket.h"

namespace OrloAgent {

// Means: connections that are fading away do not count. Somebody who listens does.
void ClaimAddress(boost::asio::ip::tcp::acceptor& acceptor) {
  acceptor.set_option(boost::asio::ip::tcp::acceptor::reuse_address(true));
}

}  // namespace OrloAgent
