#include "Agent/StandardInput.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Error.h"
#include "Platform/Windows.h"

namespace OrloAgent {

namespace {

constexpr std::size_t kReadSize = 256 * 1024;

// How long after the end of a console's read the reason, Ctrl+C, is waited for.
constexpr std::chrono::milliseconds kControlPause{200};

bool IsEndOfPipe(DWORD error) {
  return error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF || error == ERROR_NO_DATA;
}

}  // namespace

// A thread that reads ahead by one buffer. Windows has nothing that waits for the data of a pipe or
// console and for something else at the same time, and does not end every read that waits. The
// thread shares this object: where a read can't be ended, it waits there until the process ends.
struct StandardInput::WakeUp {
  std::mutex lock;
  std::condition_variable changed;
  // Written by the thread while `ready` is false, read while it is true; the rest is guarded.
  std::vector<char> buffer = std::vector<char>(kReadSize);
  std::size_t size = 0;
  std::size_t taken = 0;
  Outcome outcome = Outcome::Data;
  std::string error;
  bool ready = false;
  bool interrupted = false;
  bool started = false;

  // False: there is nothing more to read.
  bool ReadOnce(HANDLE input) {
    DWORD count = 0;
    const BOOL bRead =
        ReadFile(input, buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr);
    const DWORD failure = bRead ? ERROR_SUCCESS : GetLastError();
    DWORD mode = 0;
    const bool bConsole = GetConsoleMode(input, &mode) != FALSE;
    std::unique_lock guard(lock);
    if (count == 0 && bConsole) {
      // Ctrl+C ends the read of a console, which goes on if nobody has stopped it; Ctrl+Z at the
      // start of a line is the end of input.
      changed.wait_for(guard, kControlPause, [this] { return interrupted; });
      if (failure == ERROR_OPERATION_ABORTED) {
        return !interrupted;
      }
    }
    size = count;
    taken = 0;
    if (count == 0) {
      outcome = bRead || IsEndOfPipe(failure) ? Outcome::End : Outcome::Failed;
      error = Platform::ErrorText(failure);
    }
    ready = true;
    changed.notify_all();
    return count > 0;
  }

  void Run() {
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    for (;;) {
      {
        std::unique_lock guard(lock);
        changed.wait(guard, [this] { return !ready || interrupted; });
        if (interrupted) {
          return;
        }
      }
      if (!ReadOnce(input)) {
        return;
      }
    }
  }
};

StandardInput::StandardInput() : m_wakeUp(std::make_shared<WakeUp>()) {}

StandardInput::~StandardInput() { Interrupt(); }

// What was read before the interruption is still given out.
StandardInput::Outcome StandardInput::Read(char* buffer, std::size_t capacity, std::size_t& size) {
  size = 0;
  WakeUp& wakeUp = *m_wakeUp;
  std::unique_lock guard(wakeUp.lock);
  if (!wakeUp.started && !wakeUp.interrupted) {
    wakeUp.started = true;
    std::thread([shared = m_wakeUp] { shared->Run(); }).detach();
  }
  wakeUp.changed.wait(guard, [&] { return wakeUp.ready || wakeUp.interrupted; });
  if (!wakeUp.ready) {
    return Outcome::Interrupted;
  }
  if (wakeUp.outcome != Outcome::Data) {
    m_error = wakeUp.error;
    return wakeUp.outcome;
  }
  size = std::min(capacity, wakeUp.size - wakeUp.taken);
  std::memcpy(buffer, wakeUp.buffer.data() + wakeUp.taken, size);
  wakeUp.taken += size;
  if (wakeUp.taken == wakeUp.size) {
    wakeUp.ready = false;
    wakeUp.changed.notify_all();
  }
  return Outcome::Data;
}

void StandardInput::Interrupt() {
  const std::lock_guard guard(m_wakeUp->lock);
  m_wakeUp->interrupted = true;
  m_wakeUp->changed.notify_all();
}

}  // namespace OrloAgent
