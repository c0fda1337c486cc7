#pragma once

#include <stdexcept>
#include <string>

namespace OrloCacheTool {

// What the program ends with; documented in docs/orlo-cache.md.
enum ExitCode : int {
  kDone = 0,
  // Damage was met: something could not be read, or was left out.
  kDamage = 1,
  kWrongUsage = 2,
  // The command could not do what it was asked for: no such cache, an agent is running, no room.
  kFailed = 3
};

// Ends a command; the text is for the user, a sentence without the full stop.
class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& text, ExitCode code = kFailed)
      : std::runtime_error(text), m_code(code) {}

  ExitCode GetCode() const { return m_code; }

 private:
  ExitCode m_code;
};

}  // namespace OrloCacheTool
