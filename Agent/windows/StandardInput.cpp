#include "Agent/StandardInput.h"

#include <algorithm>
#include <system_error>

#include "Platform/Error.h"
#include "Platform/Windows.h"

namespace OrloAgent {

namespace {

// How often a pipe is looked at. Windows has nothing that waits for the data of a pipe and for
// something else at the same time.
constexpr DWORD kLongestPause = 20;

DWORD ToCount(std::size_t capacity) {
  constexpr std::size_t kMostAtOnce = std::size_t{1} << 30;
  return static_cast<DWORD>(std::min(capacity, kMostAtOnce));
}

bool IsEndOfPipe(DWORD error) {
  return error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF || error == ERROR_NO_DATA;
}

}  // namespace

// An event: once it is set, reading is over.
struct StandardInput::WakeUp {
  HANDLE event = nullptr;
  HANDLE input = INVALID_HANDLE_VALUE;
  DWORD kind = FILE_TYPE_UNKNOWN;
  bool bConsole = false;

  bool IsSet(DWORD milliseconds) const {
    return WaitForSingleObject(event, milliseconds) == WAIT_OBJECT_0;
  }

  // False: interrupted. A console has input when its handle is signalled, a pipe when its other end
  // has written or gone; a file always.
  bool WaitForInput() const {
    if (bConsole) {
      const HANDLE waits[] = {event, input};
      return WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0;
    }
    if (kind == FILE_TYPE_PIPE) {
      DWORD available = 0;
      DWORD pause = 0;
      while (PeekNamedPipe(input, nullptr, 0, nullptr, &available, nullptr) != FALSE &&
             available == 0) {
        if (IsSet(pause)) {
          return false;
        }
        pause = std::min(pause + 1, kLongestPause);
      }
    }
    return !IsSet(0);
  }
};

StandardInput::StandardInput() : m_wakeUp(std::make_unique<WakeUp>()) {
  m_wakeUp->event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (m_wakeUp->event == nullptr) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                            "no event can be made");
  }
  m_wakeUp->input = GetStdHandle(STD_INPUT_HANDLE);
  m_wakeUp->kind = GetFileType(m_wakeUp->input);
  DWORD mode = 0;
  m_wakeUp->bConsole = GetConsoleMode(m_wakeUp->input, &mode) != FALSE;
}

StandardInput::~StandardInput() { CloseHandle(m_wakeUp->event); }

StandardInput::Outcome StandardInput::Read(char* buffer, std::size_t capacity, std::size_t& size) {
  size = 0;
  if (!m_wakeUp->WaitForInput()) {
    return Outcome::Interrupted;
  }
  DWORD count = 0;
  if (ReadFile(m_wakeUp->input, buffer, ToCount(capacity), &count, nullptr) == FALSE) {
    const DWORD error = GetLastError();
    if (IsEndOfPipe(error)) {
      return Outcome::End;
    }
    // Ctrl+C ends the read of a console this way.
    if (error == ERROR_OPERATION_ABORTED) {
      return m_wakeUp->IsSet(INFINITE) ? Outcome::Interrupted : Outcome::End;
    }
    m_error = Platform::ErrorText(error);
    return Outcome::Failed;
  }
  if (count == 0 && m_wakeUp->bConsole) {
    // Ctrl+C again, on some consoles; otherwise Ctrl+Z at the start of a line, the end of input.
    return m_wakeUp->IsSet(kLongestPause) ? Outcome::Interrupted : Outcome::End;
  }
  size = count;
  return count > 0 ? Outcome::Data : Outcome::End;
}

void StandardInput::Interrupt() { SetEvent(m_wakeUp->event); }

}  // namespace OrloAgent
