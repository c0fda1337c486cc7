#include "Agent/Monitor/HttpServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/Monitor/posix/ServedConnections.h"
#include "tests/support/Events.h"

namespace OrloAgent {
namespace {

namespace asio = boost::asio;
using testing::HasSubstr;
using testing::StartsWith;

// More than the system takes into its buffers for a client that does not read.
constexpr std::size_t kLarge = 64 * 1024 * 1024;

// A client that says exactly what the test wants.
class Client {
 public:
  explicit Client(std::uint16_t port) {
    m_socket.connect({asio::ip::make_address("127.0.0.1"), port});
  }

  void Send(const std::string& text) { asio::write(m_socket, asio::buffer(text)); }

  // Until the server closes.
  std::string ReadAll() {
    std::string text;
    boost::system::error_code error;
    asio::read(m_socket, asio::dynamic_buffer(text), error);
    return text;
  }

  void ReadByte() {
    char byte = 0;
    asio::read(m_socket, asio::buffer(&byte, 1));
  }

  std::string Ask(const std::string& text) {
    Send(text);
    return ReadAll();
  }

 private:
  asio::io_context m_context;
  asio::ip::tcp::socket m_socket{m_context};
};

class HttpServerTest : public testing::Test {
 protected:
  void Start(const std::string& token = "",
             std::chrono::milliseconds answerTime = std::chrono::minutes(10)) {
    MonitorOptions options;
    options.host = "127.0.0.1";
    options.token = token;
    m_server = std::make_unique<HttpServer>(
        options,
        [](const std::string& path, const std::string& query) -> HttpAnswer {
          if (path == "/throw") {
            throw std::runtime_error("no");
          }
          if (path == "/large") {
            return {200, "text/plain", std::string(kLarge, 'x')};
          }
          return {200, "text/plain", "[" + path + "|" + query + "]"};
        },
        answerTime);
  }

  std::string Ask(const std::string& request) {
    return Client(m_server->GetPort()).Ask(request + "Connection: close\r\n\r\n");
  }

  std::unique_ptr<HttpServer> m_server;
};

TEST_F(HttpServerTest, HandlerIsAskedWithPathAndQuery) {
  Start();
  const std::string answer = Ask("GET /some/path?a=b HTTP/1.1\r\nHost: 127.0.0.1\r\n");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(answer, HasSubstr("\r\n\r\n[/some/path|a=b]"));
  EXPECT_THAT(answer, HasSubstr("Cache-Control: no-store\r\n"));
}

TEST_F(HttpServerTest, HeadIsAnsweredWithoutABody) {
  Start();
  const std::string answer = Ask("HEAD /a HTTP/1.1\r\nHost: 127.0.0.1\r\n");
  EXPECT_THAT(answer, HasSubstr("Content-Length: 5\r\n"));
  EXPECT_TRUE(answer.ends_with("\r\n\r\n"));
}

TEST_F(HttpServerTest, ConnectionStaysForTheNextRequest) {
  Start();
  const std::string first = "GET /1 HTTP/1.1\r\nHost: localhost\r\n\r\n";
  const std::string last = "GET /2 HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
  const std::string answer = Client(m_server->GetPort()).Ask(first + last);
  EXPECT_THAT(answer, HasSubstr("[/1|]"));
  EXPECT_THAT(answer, HasSubstr("[/2|]"));
}

TEST_F(HttpServerTest, WithoutTheTokenThereIsNothingToBeSeen) {
  Start("0123456789abcdef");
  const std::string none = Ask("GET /a HTTP/1.1\r\nHost: 127.0.0.1\r\n");
  EXPECT_THAT(none, StartsWith("HTTP/1.1 401 "));
  EXPECT_THAT(none, HasSubstr("WWW-Authenticate: Basic "));
  EXPECT_THAT(Ask("GET /a HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer 0123456789abcdeF\r\n"),
              StartsWith("HTTP/1.1 401 "));
  EXPECT_THAT(Ask("GET /a HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer 0123456789abcdef\r\n"),
              HasSubstr("[/a|]"));
}

TEST_F(HttpServerTest, ForeignNameThatLeadsHereIsRefused) {
  Start();
  EXPECT_THAT(Ask("GET /a HTTP/1.1\r\nHost: evil.example\r\n"), StartsWith("HTTP/1.1 421 "));
  EXPECT_THAT(Ask("GET /a HTTP/1.1\r\n"), StartsWith("HTTP/1.1 421 "));
}

TEST_F(HttpServerTest, OtherMethodsAreRefused) {
  Start();
  const std::string answer = Ask("DELETE /a HTTP/1.1\r\nHost: 127.0.0.1\r\n");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 405 "));
  EXPECT_THAT(answer, HasSubstr("Allow: GET, HEAD\r\n"));
}

TEST_F(HttpServerTest, HandlerThatThrowsIsAnError) {
  Start();
  EXPECT_THAT(Ask("GET /throw HTTP/1.1\r\nHost: 127.0.0.1\r\n"), StartsWith("HTTP/1.1 500 "));
}

TEST_F(HttpServerTest, RequestsThatAreTooLongOrNoneEndTheConnection) {
  Start();
  EXPECT_EQ(Client(m_server->GetPort()).Ask("GET /" + std::string(9000, 'x')), "");
  EXPECT_EQ(Client(m_server->GetPort()).Ask("no request at all\r\n\r\n"), "");
  EXPECT_EQ(Client(m_server->GetPort())
                .Ask("POST /a HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 3\r\n\r\nabc"),
            "");
}

TEST_F(HttpServerTest, ClientsThatSayNothingKeepNobodyOut) {
  Start();
  std::vector<std::unique_ptr<Client>> silent;
  for (int i = 0; i < 100; ++i) {
    silent.push_back(std::make_unique<Client>(m_server->GetPort()));
    silent.back()->Send("GET / HTTP/1.1\r\nHost: ");
  }
  EXPECT_THAT(Ask("GET /a HTTP/1.1\r\nHost: 127.0.0.1\r\n"), HasSubstr("[/a|]"));
  // The first one had to give way.
  EXPECT_EQ(silent.front()->ReadAll(), "");
}

TEST_F(HttpServerTest, ClientThatTricklesIsGoneAfterTenSeconds) {
  Start();
  Client client(m_server->GetPort());
  client.Send("GET / HTTP/1.1\r\nHost: 127.");
  EXPECT_EQ(client.ReadAll(), "");
}

TEST_F(HttpServerTest, ClientThatDoesNotReadItsAnswerHoldsItForTheAnswerTimeOnly) {
  constexpr std::chrono::seconds kAnswerTime{1};
  Start("", kAnswerTime);
  Client client(m_server->GetPort());
  const auto start = std::chrono::steady_clock::now();
  client.Send("GET /large HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  // From then on the time runs.
  client.ReadByte();
  const auto count = [this] { return TestSupport::CountServedConnections(m_server->GetPort()); };
  ASSERT_TRUE(TestSupport::WaitUntil([&] { return count() == 0; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, kAnswerTime);
  EXPECT_THAT(Ask("GET /a HTTP/1.1\r\nHost: 127.0.0.1\r\n"), HasSubstr("[/a|]"));
  EXPECT_LT(client.ReadAll().size(), kLarge);
}

TEST_F(HttpServerTest, AddressThatIsTakenIsSaidWithAReason) {
  Start();
  MonitorOptions same;
  same.host = "127.0.0.1";
  same.port = m_server->GetPort();
  try {
    const HttpServer second(same, {});
    FAIL() << "two servers on one port";
  } catch (const WindowsAgentCommon::InitializationException& exception) {
    EXPECT_THAT(exception.what(), HasSubstr("The monitor can't listen on 127.0.0.1 port " +
                                            std::to_string(same.port)));
  }
}

}  // namespace
}  // namespace OrloAgent
