#include "CacheTool/Progress.h"

#include <algorithm>
#include <iostream>

#include "CacheTool/System.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

namespace {

constexpr std::chrono::seconds kSilent{1};
constexpr std::chrono::milliseconds kBetweenDraws{100};
constexpr std::size_t kWidth = 40;

}  // namespace

Progress::Progress(std::string what, std::uint64_t total)
    : Progress(std::move(what), total, std::cerr, IsErrorTerminal(), &Clock::now) {}

Progress::Progress(std::string what, std::uint64_t total, std::ostream& terminal, bool isTerminal,
                   std::function<Clock::time_point()> now)
    : m_what(std::move(what)),
      m_total(std::max<std::uint64_t>(total, 1)),
      m_terminal(terminal),
      m_isTerminal(isTerminal),
      m_now(std::move(now)),
      m_nextDraw(m_now() + kSilent) {}

Progress::~Progress() { Clear(); }

void Progress::Add(std::uint64_t amount) {
  // More may have come since the total was taken.
  m_done = std::min(m_total, m_done + amount);
  if (!m_isTerminal || m_now() < m_nextDraw) {
    return;
  }
  m_nextDraw = m_now() + kBetweenDraws;
  Draw();
}

void Progress::Draw() {
  const double part = static_cast<double>(m_done) / static_cast<double>(m_total);
  const auto full = static_cast<std::size_t>(part * kWidth);
  const std::string line =
      WindowsAgentCommon::Format("%s [%s%s] %3d %%", m_what, std::string(full, '#'),
                                 std::string(kWidth - full, '.'), static_cast<int>(part * 100));
  m_terminal << '\r' << line << std::flush;
  m_drawn = line.size();
}

void Progress::Clear() {
  if (m_drawn != 0) {
    m_terminal << '\r' << std::string(m_drawn, ' ') << '\r' << std::flush;
    m_drawn = 0;
  }
}

}  // namespace OrloCacheTool
