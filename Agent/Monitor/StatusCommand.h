#pragma once

#include <string>

namespace OrloAgent {

// What "orlo-agent status" was asked. A configuration file or an address is named, not both.
struct StatusQuestion {
  // The agent's configuration file, of which the section "monitor" is read.
  std::string configuration;
  // http://HOST:PORT. Its token, if it wants one, comes from the environment variable
  // ORLO_MONITOR_TOKEN: an argument could be read by every user of the machine.
  std::string url;
  bool json = false;
  // Goes on every two seconds until a signal ends the program.
  bool watch = false;
};

// Asks the running agent how it is, and prints it. The exit code: 0 healthy, 1 degraded, 2 not
// running, or not to be asked, with the reason on standard error.
int RunStatus(const StatusQuestion& question);

}  // namespace OrloAgent
