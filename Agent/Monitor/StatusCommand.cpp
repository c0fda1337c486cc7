#include "Agent/Monitor/StatusCommand.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "Agent/ConfigurationReader.h"
#include "Agent/Monitor/StatusText.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

using boost::system::error_code;
using nlohmann::json;

namespace {

constexpr int kHealthy = 0;
constexpr int kDegraded = 1;
constexpr int kNotRunning = 2;

constexpr std::chrono::seconds kPatience{10};
constexpr std::chrono::seconds kBetweenLooks{2};
constexpr std::uint64_t kLargestAnswer = 64 * 1024 * 1024;

struct Target {
  std::string host;
  std::string port;
  std::string token;
};

// What is wrong elsewhere keeps nobody from asking a running agent, which may have been started
// before it went wrong.
bool ConcernsMonitor(const ConfigurationMistake& mistake) {
  return mistake.key.empty() || mistake.key == "monitor" || mistake.key.starts_with("monitor.");
}

Target ReadTarget(const std::string& file) {
  const Configuration configuration = LoadConfiguration(file);
  const auto mistake =
      std::find_if(configuration.mistakes.begin(), configuration.mistakes.end(), ConcernsMonitor);
  if (mistake != configuration.mistakes.end()) {
    throw std::runtime_error(ToText(*mistake, file));
  }
  const MonitorOptions& monitor = configuration.options.monitor;
  if (monitor.host.empty()) {
    throw std::runtime_error(file + " has no section \"monitor\"");
  }
  if (monitor.port == 0) {
    throw std::runtime_error(
        "the port of the monitor is chosen by the system; the agent's log tells it, and --url "
        "takes "
        "it");
  }
  const asio::ip::address address = asio::ip::make_address(monitor.host);
  const std::string host = !address.is_unspecified() ? monitor.host
                           : address.is_v6()         ? "::1"
                                                     : "127.0.0.1";
  return {host, std::to_string(monitor.port), monitor.token};
}

Target ParseUrl(std::string url) {
  constexpr std::string_view kScheme = "http://";
  if (!url.empty() && url.back() == '/') {
    url.pop_back();
  }
  std::string problem;
  const auto endpoint = url.starts_with(kScheme)
                            ? ParseEndpoint("tcp://" + url.substr(kScheme.size()), false, problem)
                            : std::nullopt;
  if (!endpoint) {
    throw std::runtime_error("\"" + url + "\" is not http://HOST:PORT");
  }
  const char* const token = std::getenv("ORLO_MONITOR_TOKEN");
  return {endpoint->host, std::to_string(endpoint->port), token != nullptr ? token : ""};
}

// One request. Once the host's address is known, it ends when the patience does.
class Client {
 public:
  explicit Client(const Target& target) : m_target(target) {}

  using Response = http::response<http::string_body>;

  // Throws when there is no answer.
  Response Get(const std::string& path) {
    asio::ip::tcp::resolver resolver(m_context);
    asio::ip::tcp::resolver::results_type found;
    Check(Run([&](auto done) {
      resolver.async_resolve(m_target.host, m_target.port,
                             [&found, done](const error_code& error, auto results) {
                               found = results;
                               done(error);
                             });
    }));
    m_stream.expires_after(kPatience);
    Check(Run([&](auto done) {
      m_stream.async_connect(found, [done](const error_code& error, const auto&) { done(error); });
    }));
    const bool isV6 = m_target.host.find(':') != m_target.host.npos;
    http::request<http::empty_body> request(http::verb::get, path, 11);
    request.set(http::field::host,
                (isV6 ? "[" + m_target.host + "]" : m_target.host) + ":" + m_target.port);
    if (!m_target.token.empty()) {
      request.set(http::field::authorization, "Bearer " + m_target.token);
    }
    Check(Run([&](auto done) {
      http::async_write(m_stream, request,
                        [done](const error_code& error, std::size_t) { done(error); });
    }));
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(kLargestAnswer);
    Check(Run([&](auto done) {
      http::async_read(m_stream, buffer, parser,
                       [done](const error_code& error, std::size_t) { done(error); });
    }));
    return parser.release();
  }

 private:
  template <typename Start>
  error_code Run(Start start) {
    error_code result = asio::error::timed_out;
    start([&result](const error_code& error) { result = error; });
    m_context.restart();
    m_context.run();
    return result;
  }

  static void Check(const error_code& error) {
    if (error) {
      throw std::runtime_error(error.message());
    }
  }

  const Target m_target;
  asio::io_context m_context{1};
  beast::tcp_stream m_stream{m_context};
};

Client::Response Ask(const Target& target, const std::string& place) {
  try {
    return Client(target).Get("/status");
  } catch (const std::exception& exception) {
    throw std::runtime_error("no agent answers" + place + " (" + exception.what() + ")");
  }
}

// The code, and the first line of what it comes with, without its full stop.
std::string Describe(const Client::Response& response) {
  constexpr std::size_t kShown = 200;
  const std::string& body = response.body();
  std::string line = body.substr(0, std::min(body.find_first_of("\r\n"), kShown));
  if (line.ends_with('.')) {
    line.pop_back();
  }
  return std::to_string(response.result_int()) + (line.empty() ? "" : ": " + Printable(line));
}

// What is no JSON is discarded, as that is called.
json Fetch(const Target& target, const std::string& place, std::string& text) {
  const Client::Response response = Ask(target, place);
  if (response.result() == http::status::unauthorized) {
    throw std::runtime_error(
        "the agent" + place +
        (target.token.empty()
             ? " wants its token, and none is known: it comes from \"monitor.token\" with "
               "--config, and from the environment variable ORLO_MONITOR_TOKEN with --url"
             : " has another token than the one that it was sent"));
  }
  if (response.result() != http::status::ok) {
    throw std::runtime_error("the answer" + place + " is " + Describe(response));
  }
  text = response.body();
  return json::parse(text, nullptr, false);
}

// Prints once; leaves what was fetched for the rates of the next time.
int Show(const StatusQuestion& question, const Target& target, json& last) {
  const std::string place = " at " + target.host + " port " + target.port;
  std::string text;
  const json status = Fetch(target, place, text);
  bool isHealthy = false;
  std::string shown;
  try {
    isHealthy = status.at("healthy").get<bool>();
    shown = question.json ? text : MakeStatusText(status, last);
  } catch (const json::exception&) {
    throw std::runtime_error("what answers" + place +
                             " is no agent's monitor, or one of another version");
  }
  if (question.watch && !question.json) {
    // From the upper left corner on, and nothing below.
    std::cout << "\x1b[H\x1b[J";
  }
  std::cout << shown << std::flush;
  last = status;
  return isHealthy ? kHealthy : kDegraded;
}

}  // namespace

int RunStatus(const StatusQuestion& question) {
  if (question.url.empty() && question.configuration.empty()) {
    std::cerr << "orlo-agent status: which agent? Say --config FILE or --url http://HOST:PORT.\n";
    return kNotRunning;
  }
  json last;
  for (;;) {
    int code = kNotRunning;
    try {
      const Target target =
          question.url.empty() ? ReadTarget(question.configuration) : ParseUrl(question.url);
      code = Show(question, target, last);
    } catch (const std::exception& exception) {
      std::cerr << "orlo-agent status: " << exception.what() << ".\n";
    }
    if (!question.watch || !std::cout) {
      return code;
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

}  // namespace OrloAgent
