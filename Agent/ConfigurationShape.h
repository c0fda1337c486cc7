#pragma once

#include <optional>
#include <string>

#include "Agent/ConfigurationReader.h"

namespace OrloAgent {

// Goes through the structure of a YAML text without keeping any of it, and names what the reader
// of values must not meet: a second document, nesting without end, a list or map that contains
// itself, and aliases that make a small file a huge configuration. Nothing if the text may be read.
// Throws YAML::Exception if the text is not YAML.
std::optional<ConfigurationMistake> FindProblemOfShape(const std::string& text);

}  // namespace OrloAgent
