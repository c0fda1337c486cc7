#pragma once

#include <string>
#include <vector>

#include "Agent/Options.h"

// How messages, of the agent and of the libraries that it uses, may show a value of the
// configuration, when that is not as it was written. Who hides a value hides these as well.
namespace OrloAgent {

// The address as a whole, with and without its scheme, and its host alone; names in lower case,
// too, and addresses in the form that the system gives them.
std::vector<std::string> GetShownForms(const Endpoint& endpoint);

// The same of each broker in a list such as "SASL_SSL://A.example:9093,B.example".
std::vector<std::string> GetShownFormsOfBrokers(const std::string& brokers);

// The path without detours, absolute, and with the system's own separators.
std::vector<std::string> GetShownFormsOfPath(const std::string& path);

// Of a pattern, beside its forms as a path: those of the directory below which it finds files, and
// where those that were renamed lie.
std::vector<std::string> GetShownFormsOfDirectory(const std::string& pattern);

}  // namespace OrloAgent
