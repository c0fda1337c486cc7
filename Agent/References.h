#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Values that the configuration file names instead of holding them:
//
//   ${NAME}       the environment variable NAME: letters, digits and underscores, no digit first
//   ${file:PATH}  what the file holds, without the line end that it ends with
//   $${           stands for ${ itself
//
// anywhere in a value, any number of times. What a reference stands for is not looked at again.
namespace OrloAgent {

// Where references are looked up. A function that is not there finds nothing.
struct References {
  // Nothing if the variable is not set.
  std::function<std::optional<std::string>(const std::string& name)> environment;
  // Nothing if the file can't be used; the reason is left in `problem`.
  std::function<std::optional<std::string>(const std::string& path, std::string& problem)> file;
};

// The process's environment, and files of at most 64 KiB without NUL bytes.
References SystemReferences();

// Whether the text has a reference, good or bad.
bool HasReference(const std::string& text);

struct Expansion {
  std::string text;
  // What each reference stands for.
  std::vector<std::string> values;
  // What is wrong, in words that follow the key; empty if nothing is. Never holds a value.
  std::string problem;
};

Expansion ExpandReferences(const std::string& text, const References& references);

}  // namespace OrloAgent
