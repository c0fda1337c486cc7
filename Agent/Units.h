#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Agent/Options.h"

// Values with units as they are written in the configuration file. Each gives nothing for text that
// is not exactly such a value.
namespace OrloAgent {

// Bytes: a whole number, alone or followed by KiB, MiB, GiB or TiB ("10GiB", "4096").
std::optional<std::uint64_t> ParseSize(std::string_view text);

// A whole number followed by ms, s, m or h ("500ms", "30s"); a bare "0" is a duration too. At most
// 24 h.
std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);

// A whole number without sign that fits.
std::optional<std::uint64_t> ParseWholeNumber(std::string_view text);

// SCHEME://HOST:PORT. SCHEME is tcp, udp or tls; HOST is a name, an IPv4 address, or an IPv6
// address in brackets. What is wrong is left in `problem`, in words that follow the key.
std::optional<Endpoint> ParseEndpoint(std::string_view text, bool mayBePortZero,
                                      std::string& problem);

// The reverse of ParseEndpoint.
std::string ToText(const Endpoint& endpoint);

}  // namespace OrloAgent
