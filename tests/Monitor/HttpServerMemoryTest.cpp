// The monitor's server when there is no memory for a client. A program of its own, because it
// replaces the allocation of all threads.
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <optional>
#include <string>

#include "Agent/Monitor/HttpServer.h"
#include "tests/Monitor/FailingAllocations.h"
#include "tests/support/LogCapture.h"

namespace OrloAgent {
namespace {

namespace asio = boost::asio;

constexpr std::chrono::seconds kLimit{60};

// What the server says until it closes; nothing if it does not close in time.
std::optional<std::string> Ask(std::uint16_t port) {
  asio::io_context context;
  asio::ip::tcp::socket socket(context);
  socket.connect({asio::ip::make_address("127.0.0.1"), port});
  boost::system::error_code error;
  std::string text = "GET /a HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
  asio::write(socket, asio::buffer(text), error);
  text.clear();
  bool isClosed = false;
  asio::async_read(socket, asio::dynamic_buffer(text),
                   [&isClosed](const boost::system::error_code&, std::size_t) { isClosed = true; });
  context.run_for(kLimit);
  return isClosed ? std::optional(text) : std::nullopt;
}

TEST(HttpServerWithoutMemory, ClientForWhomThereIsNoneIsGoneAndTheNextOneIsServed) {
  MonitorOptions options;
  options.host = "127.0.0.1";
  const TestSupport::LogCapture log;
  const HttpServer server(options, [](const std::string&, const std::string&) {
    return HttpAnswer{200, "text/plain", "here"};
  });
  // What fails in the first round is logged; what fails later belongs to its row.
  for (int failures = 1; failures <= 8; ++failures) {
    const auto begun = std::chrono::steady_clock::now();
    TestSupport::allocationFailures = failures;
    // As many clients as it takes: each of them meets at least one failure.
    for (int client = 0; client < 100 && TestSupport::allocationFailures > 0; ++client) {
      ASSERT_TRUE(Ask(server.GetPort())) << failures;
    }
    ASSERT_EQ(TestSupport::allocationFailures, 0);
    const auto answer = Ask(server.GetPort());
    ASSERT_TRUE(answer && answer->ends_with("here")) << failures << ": " << answer.value_or("");
    ASSERT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(100))
        << "what fails at once is not tried at once";
    ASSERT_EQ(log.Lines().size(), 1u);
  }
}

}  // namespace
}  // namespace OrloAgent
