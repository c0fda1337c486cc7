#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Agent/Options.h"
#include "Agent/References.h"
#include "WindowsAgentCommon/Secrets.h"

namespace OrloAgent {

// One thing that is wrong with a configuration.
struct ConfigurationMistake {
  // Counted from 1; 0 when the mistake is not in the text, for example when there is no file.
  int line = 0;
  // The full path of the key, such as "streams[0].destination.target"; empty when the mistake
  // belongs to no key.
  std::string key;
  // What is wrong, in words that follow the key.
  std::string problem;
};

struct Configuration {
  // Only to be used when there are no mistakes; a section, when there are none in it and none
  // without a key.
  AgentOptions options;
  // Every mistake that was found, in the order of the file.
  std::vector<ConfigurationMistake> mistakes;
  // What references stand for, and the values that they are a part of. No mistake shows any of it.
  WindowsAgentCommon::Secrets secrets;
};

// Reads a configuration from its YAML text. Depends on nothing but the text and the references, and
// changes nothing else; never throws, whatever the text is.
Configuration ParseConfiguration(std::string_view text, const References& references = {});

// The same for a file, with the references of the system; one that can't be read is a mistake too.
Configuration LoadConfiguration(const std::string& path);

// "FILE:LINE: KEY: PROBLEM", without the parts that the mistake does not have. Always one line.
std::string ToText(const ConfigurationMistake& mistake, const std::string& file);

}  // namespace OrloAgent
