#pragma once

#include <string>
#include <string_view>

namespace OrloAgent {

// Whether the value of an Authorization header carries the token, as "Bearer TOKEN" or, as browsers
// send it, as the password of "Basic". How long it takes tells nothing of the token but its length.
bool CarriesToken(std::string_view authorization, const std::string& token);

// Whether the value of a Host header is an address or localhost, with or without a port.
bool IsAddressOrLocalhost(std::string_view host);

}  // namespace OrloAgent
