#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace OrloCacheTool {

// A bar for work that takes longer than a second, redrawn at most ten times in a second and wiped
// when the work ends. Only for terminals: elsewhere it writes nothing. One thread.
class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  // On standard error, if that is a terminal. `what` is said before the bar: "Checking".
  Progress(std::string what, std::uint64_t total);

  // What stands in for the terminal and the clock in tests.
  Progress(std::string what, std::uint64_t total, std::ostream& terminal, bool isTerminal,
           std::function<Clock::time_point()> now);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(std::uint64_t amount);

  // Wipes the bar, so that a message can stand in its place; the next Add may draw it again.
  void Clear();

 private:
  void Draw();

  const std::string m_what;
  const std::uint64_t m_total;
  std::ostream& m_terminal;
  const bool m_isTerminal;
  const std::function<Clock::time_point()> m_now;
  std::uint64_t m_done = 0;
  Clock::time_point m_nextDraw;
  std::size_t m_drawn = 0;
};

}  // namespace OrloCacheTool
