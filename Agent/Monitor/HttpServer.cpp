#include "Agent/Monitor/HttpServer.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <list>
#include <optional>
#include <thread>

#include "Agent/Monitor/RequestGuard.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

using boost::system::error_code;
using std::chrono::steady_clock;

namespace {

constexpr std::size_t kLargestRequest = 8 * 1024;
constexpr std::size_t kConnections = 64;
constexpr std::chrono::seconds kRequestTime{10};
constexpr std::chrono::milliseconds kBetweenAttempts{100};
// What ends a row of failures.
constexpr std::chrono::minutes kQuiet{1};

// What a page may do: nothing but what stands in it, and ask the agent again.
constexpr char kContentPolicy[] =
    "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
    "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";

using Request = http::request<http::empty_body>;
using Response = http::response<http::string_body>;

std::string ToString(beast::string_view text) { return std::string(text.data(), text.size()); }

HttpAnswer MakeTextAnswer(unsigned status, std::string text) {
  return {status, "text/plain; charset=utf-8", std::move(text) + "\n"};
}

// Decides who gets an answer, and which.
class Responder {
 public:
  Responder(std::string token, HttpHandler handler)
      : m_token(std::move(token)), m_handler(std::move(handler)) {}

  Response Answer(const Request& request) const {
    HttpAnswer answer = Decide(request);
    Response response(static_cast<http::status>(answer.status), request.version());
    response.set(http::field::content_type, answer.contentType);
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Referrer-Policy", "no-referrer");
    response.set("Content-Security-Policy", kContentPolicy);
    if (answer.status == 401) {
      // Browsers ask their user then.
      response.set(http::field::www_authenticate, "Basic realm=\"orlo-agent\", charset=\"UTF-8\"");
    }
    if (answer.status == 405) {
      response.set(http::field::allow, "GET, HEAD");
    }
    response.keep_alive(request.keep_alive());
    const std::size_t size = answer.body.size();
    if (request.method() != http::verb::head) {
      response.body() = std::move(answer.body);
    }
    response.content_length(size);
    return response;
  }

 private:
  HttpAnswer Decide(const Request& request) const {
    if (!m_token.empty()) {
      if (!CarriesToken(ToString(request[http::field::authorization]), m_token)) {
        return MakeTextAnswer(401, "This needs the monitor's token.");
      }
    } else if (!IsAddressOrLocalhost(ToString(request[http::field::host]))) {
      return MakeTextAnswer(421, "Ask for an address or for localhost, not for another name.");
    }
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
      return MakeTextAnswer(405, "There is nothing here but to be read.");
    }
    const std::string target = ToString(request.target());
    const std::size_t mark = target.find('?');
    try {
      return m_handler(target.substr(0, mark),
                       mark == target.npos ? std::string() : target.substr(mark + 1));
    } catch (const std::exception& exception) {
      return MakeTextAnswer(500, exception.what());
    }
  }

  const std::string m_token;
  const HttpHandler m_handler;
};

// One client. Lives as long as it waits for something.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(asio::ip::tcp::socket socket, const Responder& responder,
             std::chrono::milliseconds answerTime)
      : m_stream(std::move(socket)), m_responder(responder), m_answerTime(answerTime) {}

  void Read() {
    m_since = steady_clock::now();
    m_parser.emplace();
    m_parser->header_limit(static_cast<std::uint32_t>(kLargestRequest));
    m_parser->body_limit(0);
    // For the whole request, however its bytes trickle in.
    m_stream.expires_after(kRequestTime);
    http::async_read(
        m_stream, m_buffer, *m_parser,
        [self = shared_from_this()](const error_code& error, std::size_t) { self->OnRead(error); });
  }

  void Close() { m_stream.close(); }
  bool IsOpen() { return m_stream.socket().is_open(); }
  steady_clock::time_point GetSince() const { return m_since; }

 private:
  void OnRead(const error_code& error) {
    if (error) {
      Close();
      return;
    }
    m_response = m_responder.Answer(m_parser->get());
    m_stream.expires_after(m_answerTime);
    http::async_write(m_stream, m_response,
                      [self = shared_from_this()](const error_code& failure, std::size_t) {
                        self->OnWritten(failure);
                      });
  }

  void OnWritten(const error_code& error) {
    if (error || m_response.need_eof()) {
      error_code ignored;
      m_stream.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
      Close();
      return;
    }
    Read();
  }

  beast::tcp_stream m_stream;
  const Responder& m_responder;
  const std::chrono::milliseconds m_answerTime;
  beast::flat_buffer m_buffer{kLargestRequest};
  std::optional<http::request_parser<http::empty_body>> m_parser;
  Response m_response;
  steady_clock::time_point m_since;
};

}  // namespace

class HttpServer::Listener {
 public:
  Listener(const MonitorOptions& options, HttpHandler handler, std::chrono::milliseconds answerTime)
      : m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Monitor")),
        m_responder(options.token, std::move(handler)),
        m_answerTime(answerTime) {
    const std::string shown = options.host + " port " + std::to_string(options.port);
    try {
      const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(options.host), options.port);
      m_acceptor.open(endpoint.protocol());
      m_acceptor.set_option(asio::ip::tcp::acceptor::reuse_address(true));
      m_acceptor.bind(endpoint);
      m_acceptor.listen();
      m_port = m_acceptor.local_endpoint().port();
      Accept();
      m_thread = std::thread([this] { Run(); });
    } catch (const std::exception& error) {
      throw WindowsAgentCommon::InitializationException(
          "Monitor", "OrloAgent::HttpServer::HttpServer", __LINE__,
          "The monitor can't listen on " + shown + " (" + error.what() + ")");
    }
  }

  ~Listener() {
    m_context.stop();
    m_thread.join();
  }

  std::uint16_t GetPort() const { return m_port; }

 private:
  void Run() {
    for (;;) {
      try {
        if (m_awaiting.expired()) {
          Accept();
        }
        m_context.run();
        return;
      } catch (const std::exception& exception) {
        // For want of memory, as a rule; others can be served.
        Report(exception);
        // What waits for something is held by that as well; what doesn't, nothing would ever end.
        m_connections.remove_if([](const auto& one) { return one.use_count() == 1; });
        // Else what fails at once would be tried at once.
        std::this_thread::sleep_for(kBetweenAttempts);
      }
    }
  }

  // Not every failure of a row, which would fill the log.
  void Report(const std::exception& exception) {
    const auto now = steady_clock::now();
    if (!m_lastFailure || now - *m_lastFailure > kQuiet) {
      WindowsAgentCommon::LogFacade::Error(m_log, "A request was not answered: %s.",
                                           std::string(exception.what()));
    }
    m_lastFailure = now;
  }

  // What waits holds the token. If it ends with an exception, or was never begun, nothing does, and
  // Run begins it again.
  void Accept() {
    const auto token = std::make_shared<char>();
    m_awaiting = token;
    m_acceptor.async_accept([this, token](const error_code& error, asio::ip::tcp::socket socket) {
      if (error) {
        // For want of descriptors, as a rule, which others will give back.
        m_timer.expires_after(kBetweenAttempts);
        m_timer.async_wait([this, token](const error_code&) { Accept(); });
        return;
      }
      Add(std::make_shared<Connection>(std::move(socket), m_responder, m_answerTime));
      Accept();
    });
  }

  void Add(const std::shared_ptr<Connection>& connection) {
    m_connections.remove_if([](const auto& one) { return !one->IsOpen(); });
    if (m_connections.size() >= kConnections) {
      const auto oldest = std::min_element(
          m_connections.begin(), m_connections.end(),
          [](const auto& left, const auto& right) { return left->GetSince() < right->GetSince(); });
      (*oldest)->Close();
      m_connections.erase(oldest);
    }
    m_connections.push_back(connection);
    connection->Read();
  }

  WindowsAgentCommon::Log m_log;
  const Responder m_responder;
  const std::chrono::milliseconds m_answerTime;
  // When a client was last let go without an answer. The serving thread's.
  std::optional<steady_clock::time_point> m_lastFailure;
  asio::io_context m_context{1};
  // An exception may leave nothing to be awaited for a moment, which is not the end.
  const asio::executor_work_guard<asio::io_context::executor_type> m_work{m_context.get_executor()};
  asio::ip::tcp::acceptor m_acceptor{m_context};
  asio::steady_timer m_timer{m_context};
  // Of what waits for a client, or for the time of another attempt.
  std::weak_ptr<char> m_awaiting;
  std::list<std::shared_ptr<Connection>> m_connections;
  std::uint16_t m_port = 0;
  std::thread m_thread;
};

HttpServer::HttpServer(const MonitorOptions& options, HttpHandler handler,
                       std::chrono::milliseconds answerTime)
    : m_listener(std::make_unique<Listener>(options, std::move(handler), answerTime)) {}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::GetPort() const { return m_listener->GetPort(); }

}  // namespace OrloAgent
