#include "Agent/ShownForms.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <filesystem>
#include <system_error>

#include "Agent/PathText.h"
#include "Agent/Units.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

namespace {

std::string ToLower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

std::string WithoutBrackets(const std::string& host) {
  const bool has = host.size() > 2 && host.front() == '[' && host.back() == ']';
  return has ? host.substr(1, host.size() - 2) : host;
}

// `port` with its colon, or nothing.
void AddHost(const std::string& written, const std::string& port, std::vector<std::string>& forms) {
  std::vector<std::string> hosts{written, ToLower(written)};
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(written, error);
  if (!error) {
    hosts.push_back(address.to_string());
  }
  for (const std::string& host : hosts) {
    forms.push_back(host);
    if (host.find(':') != host.npos) {
      forms.push_back(WindowsAgentCommon::Format("[%s]%s", host, port));
    }
    forms.push_back(host + port);
  }
}

std::string Trim(const std::string& text) {
  constexpr char kBlank[] = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kBlank);
  return begin == text.npos ? std::string()
                            : text.substr(begin, text.find_last_not_of(kBlank) - begin + 1);
}

void AddBroker(const std::string& broker, std::vector<std::string>& forms) {
  constexpr std::string_view kSchemeEnd = "://";
  const std::size_t scheme = broker.find(kSchemeEnd);
  const std::string address =
      scheme == broker.npos ? broker : broker.substr(scheme + kSchemeEnd.size());
  const std::size_t colon = address.rfind(':');
  const std::size_t bracket = address.rfind(']');
  const bool hasPort = colon != address.npos && (bracket == address.npos || bracket < colon);
  const std::string port = hasPort ? address.substr(colon) : std::string();
  forms.push_back(broker);
  AddHost(WithoutBrackets(hasPort ? address.substr(0, colon) : address), port, forms);
}

void AddPath(const std::filesystem::path& path, std::vector<std::string>& forms) {
  std::error_code error;
  const std::filesystem::path normal = path.lexically_normal();
  const std::filesystem::path absolute = std::filesystem::absolute(path, error).lexically_normal();
  for (std::filesystem::path form : {path, normal, absolute}) {
    // A directory is shown without a separator behind it.
    if (!form.has_filename()) {
      form = form.parent_path();
    }
    forms.push_back(ToText(form));
    forms.push_back(ToText(form.make_preferred()));
  }
}

}  // namespace

std::vector<std::string> GetShownForms(const Endpoint& endpoint) {
  std::vector<std::string> forms{ToText(endpoint), ToLower(ToText(endpoint))};
  AddHost(endpoint.host, WindowsAgentCommon::Format(":%d", endpoint.port), forms);
  return forms;
}

std::vector<std::string> GetShownFormsOfBrokers(const std::string& brokers) {
  std::vector<std::string> forms;
  std::size_t begin = 0;
  while (begin <= brokers.size()) {
    const std::size_t end = std::min(brokers.find(',', begin), brokers.size());
    if (const std::string broker = Trim(brokers.substr(begin, end - begin)); !broker.empty()) {
      AddBroker(broker, forms);
    }
    begin = end + 1;
  }
  return forms;
}

std::vector<std::string> GetShownFormsOfPath(const std::string& path) {
  std::vector<std::string> forms;
  AddPath(ToPath(path), forms);
  return forms;
}

std::vector<std::string> GetShownFormsOfDirectory(const std::string& pattern) {
  std::vector<std::string> forms;
  std::filesystem::path directory;
  for (const std::filesystem::path& part : ToPath(pattern).parent_path()) {
    if (ToText(part).find_first_of("*?") != std::string::npos) {
      break;
    }
    directory /= part;
  }
  // A single short name would be found in every other word.
  if (directory.has_parent_path() && directory.has_filename()) {
    AddPath(directory, forms);
  }
  return forms;
}

}  // namespace OrloAgent
