#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace OrloAgent {

// The status (what /status answers) for a terminal. `before` is an earlier one, from which rates
// are taken, or null. Whatever the status holds, the text has no control characters but line feeds.
// Throws nlohmann::json::exception if something is missing, or is not what it should be.
std::string MakeStatusText(const nlohmann::json& status, const nlohmann::json& before);

// A text that others may have sent, with a question mark for each control character.
std::string Printable(const std::string& text);

}  // namespace OrloAgent
