#include "Agent/Monitor/RequestGuard.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cctype>

namespace OrloAgent {

namespace {

bool IsPrefixOf(std::string_view prefix, std::string_view text) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(), [](char left, char right) {
           return std::tolower(static_cast<unsigned char>(left)) ==
                  std::tolower(static_cast<unsigned char>(right));
         });
}

bool IsSame(std::string_view given, std::string_view token) {
  return given.size() == token.size() &&
         CRYPTO_memcmp(given.data(), token.data(), token.size()) == 0;
}

// Empty for text that is no base64.
std::string Decode(std::string_view encoded) {
  if (encoded.empty() || encoded.size() % 4 != 0) {
    return {};
  }
  std::string decoded(encoded.size() / 4 * 3, '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(decoded.data()),
                                   reinterpret_cast<const unsigned char*>(encoded.data()),
                                   static_cast<int>(encoded.size()));
  if (size < 0) {
    return {};
  }
  // What stands for nothing is decoded as zeros.
  const std::size_t last = encoded.find_last_not_of('=');
  decoded.resize(decoded.size() - std::min<std::size_t>(2, encoded.size() - 1 - last));
  return decoded;
}

}  // namespace

bool CarriesToken(std::string_view authorization, const std::string& token) {
  constexpr std::string_view kBearer = "Bearer ";
  constexpr std::string_view kBasic = "Basic ";
  if (IsPrefixOf(kBearer, authorization)) {
    return IsSame(authorization.substr(kBearer.size()), token);
  }
  if (!IsPrefixOf(kBasic, authorization)) {
    return false;
  }
  const std::string decoded = Decode(authorization.substr(kBasic.size()));
  const std::size_t colon = decoded.find(':');
  return colon != decoded.npos && IsSame(std::string_view(decoded).substr(colon + 1), token);
}

bool IsAddressOrLocalhost(std::string_view host) {
  if (!host.empty() && host.front() == '[') {
    host = host.substr(1, host.find(']') - 1);
  } else if (const std::size_t colon = host.find(':'); colon != host.npos) {
    host = host.substr(0, colon);
  }
  if (IsPrefixOf("localhost", host) && host.size() == std::string_view("localhost").size()) {
    return true;
  }
  boost::system::error_code error;
  boost::asio::ip::make_address(std::string(host), error);
  return !error;
}

}  // namespace OrloAgent
