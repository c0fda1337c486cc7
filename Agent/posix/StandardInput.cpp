#include "Agent/StandardInput.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace OrloAgent {

namespace {

std::string ErrorText() { return std::generic_category().message(errno); }

}  // namespace

// A pipe: a byte in it interrupts.
struct StandardInput::WakeUp {
  std::array<int, 2> ends{-1, -1};
};

StandardInput::StandardInput() : m_wakeUp(std::make_shared<WakeUp>()) {
  if (pipe2(m_wakeUp->ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "no pipe can be made");
  }
}

StandardInput::~StandardInput() {
  close(m_wakeUp->ends[0]);
  close(m_wakeUp->ends[1]);
}

StandardInput::Outcome StandardInput::Read(char* buffer, std::size_t capacity, std::size_t& size) {
  size = 0;
  for (;;) {
    std::array<pollfd, 2> waits{pollfd{m_wakeUp->ends[0], POLLIN, 0},
                                pollfd{STDIN_FILENO, POLLIN, 0}};
    if (poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) {
      m_error = ErrorText();
      return Outcome::Failed;
    }
    if (waits[0].revents != 0) {
      return Outcome::Interrupted;
    }
    if (waits[1].revents == 0) {
      continue;
    }
    const ssize_t count = read(STDIN_FILENO, buffer, capacity);
    if (count > 0) {
      size = static_cast<std::size_t>(count);
      return Outcome::Data;
    }
    if (count == 0) {
      return Outcome::End;
    }
    if (errno != EINTR && errno != EAGAIN) {
      m_error = ErrorText();
      return Outcome::Failed;
    }
  }
}

void StandardInput::Interrupt() {
  const char byte = 0;
  // A pipe that is full interrupts as well.
  [[maybe_unused]] const ssize_t ignored = write(m_wakeUp->ends[1], &byte, 1);
}

}  // namespace OrloAgent
