#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace OrloAgent {

// The standard input of the process, read so that a waiting read can be ended. The part that
// depends on the operating system.
class StandardInput {
 public:
  enum class Outcome { Data, End, Interrupted, Failed };

  // Throws std::system_error when the system has no means to wait left.
  StandardInput();
  ~StandardInput();
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

  // Waits for input and puts what there is, at least a byte, into the buffer. `Failed` leaves the
  // reason in GetError.
  Outcome Read(char* buffer, std::size_t capacity, std::size_t& size);

  // Ends the read that waits and all later ones. Any thread.
  void Interrupt();

  const std::string& GetError() const { return m_error; }

 private:
  struct WakeUp;
  std::shared_ptr<WakeUp> m_wakeUp;
  std::string m_error;
};

}  // namespace OrloAgent
