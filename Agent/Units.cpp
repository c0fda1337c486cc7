#include "Agent/Units.h"

#include <algorithm>
#include <array>
#include <boost/asio/ip/address.hpp>
#include <charconv>
#include <limits>

namespace OrloAgent {

namespace {

struct Unit {
  std::string_view name;
  std::uint64_t factor;
};

constexpr std::array<Unit, 5> kSizeUnits{{{"", 1},
                                          {"KiB", std::uint64_t{1} << 10},
                                          {"MiB", std::uint64_t{1} << 20},
                                          {"GiB", std::uint64_t{1} << 30},
                                          {"TiB", std::uint64_t{1} << 40}}};

constexpr std::array<Unit, 4> kTimeUnits{{{"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}}};

constexpr std::array<std::pair<Transport, std::string_view>, 3> kSchemes{
    {{Transport::Tcp, "tcp://"}, {Transport::Udp, "udp://"}, {Transport::Tls, "tls://"}}};

template <std::size_t N>
std::optional<std::uint64_t> ParseWithUnit(std::string_view text,
                                           const std::array<Unit, N>& units) {
  std::size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    ++digits;
  }
  const auto number = ParseWholeNumber(text.substr(0, digits));
  if (!number) {
    return std::nullopt;
  }
  for (const Unit& unit : units) {
    if (text.substr(digits) == unit.name) {
      if (*number > std::numeric_limits<std::uint64_t>::max() / unit.factor) {
        return std::nullopt;
      }
      return *number * unit.factor;
    }
  }
  return std::nullopt;
}

bool IsHostName(std::string_view host) {
  constexpr std::size_t kLongestName = 253;
  if (host.empty() || host.size() > kLongestName) {
    return false;
  }
  for (const char c : host) {
    const bool letterOrDigit =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (!letterOrDigit && c != '-' && c != '.' && c != '_') {
      return false;
    }
  }
  return true;
}

// Takes the host off the front of `rest` and leaves what follows it.
bool TakeHost(std::string_view& rest, std::string& host, std::string& problem) {
  boost::system::error_code error;
  if (!rest.empty() && rest.front() == '[') {
    const std::size_t end = rest.find(']');
    host = rest.substr(1, end == rest.npos ? rest.npos : end - 1);
    boost::asio::ip::make_address_v6(host, error);
    if (end == rest.npos || error) {
      problem = "is not SCHEME://HOST:PORT: no IPv6 address stands between the brackets";
      return false;
    }
    rest.remove_prefix(end + 1);
    return true;
  }
  const std::size_t end = rest.find(':');
  host = rest.substr(0, end);
  if (!IsHostName(host)) {
    problem = "is not SCHEME://HOST:PORT: HOST is neither a name nor an address";
    return false;
  }
  rest.remove_prefix(host.size());
  if (rest.find(':', 1) != rest.npos) {
    problem = "is not SCHEME://HOST:PORT: an IPv6 address needs brackets";
    return false;
  }
  return true;
}

}  // namespace

std::optional<std::uint64_t> ParseWholeNumber(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

std::optional<std::uint64_t> ParseSize(std::string_view text) {
  return ParseWithUnit(text, kSizeUnits);
}

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text) {
  constexpr std::uint64_t kLongest = 24 * 3'600'000;
  const auto value =
      text == "0" ? std::optional<std::uint64_t>(0) : ParseWithUnit(text, kTimeUnits);
  if (!value || *value > kLongest) {
    return std::nullopt;
  }
  return std::chrono::milliseconds(*value);
}

std::optional<Endpoint> ParseEndpoint(std::string_view text, bool mayBePortZero,
                                      std::string& problem) {
  const auto scheme = std::find_if(kSchemes.begin(), kSchemes.end(),
                                   [&](const auto& one) { return text.starts_with(one.second); });
  if (scheme == kSchemes.end()) {
    problem = "is not SCHEME://HOST:PORT: it does not begin with tcp://, udp:// or tls://";
    return std::nullopt;
  }
  std::string_view rest = text.substr(scheme->second.size());
  Endpoint endpoint;
  endpoint.transport = scheme->first;
  if (!TakeHost(rest, endpoint.host, problem)) {
    return std::nullopt;
  }
  if (rest.empty() || rest.front() != ':') {
    problem = "is not SCHEME://HOST:PORT: the port is missing";
    return std::nullopt;
  }
  const auto port = ParseWholeNumber(rest.substr(1));
  if (!port) {
    problem = "is not SCHEME://HOST:PORT: the port is not a number";
    return std::nullopt;
  }
  const std::uint64_t lowest = mayBePortZero ? 0 : 1;
  if (*port < lowest || *port > 65535) {
    problem = "has a port out of range: " + std::to_string(*port) + " is not " +
              std::to_string(lowest) + " to 65535";
    return std::nullopt;
  }
  endpoint.port = static_cast<std::uint16_t>(*port);
  return endpoint;
}

std::string ToText(const Endpoint& endpoint) {
  const bool brackets = endpoint.host.find(':') != endpoint.host.npos;
  const auto scheme = std::find_if(kSchemes.begin(), kSchemes.end(), [&](const auto& one) {
    return one.first == endpoint.transport;
  });
  return std::string(scheme->second) + (brackets ? "[" : "") + endpoint.host +
         (brackets ? "]:" : ":") + std::to_string(endpoint.port);
}

}  // namespace OrloAgent
