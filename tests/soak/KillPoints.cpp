// Kills the agent from within, at an exact place in the life of its event cache. Loaded into the
// agent with LD_PRELOAD, by the soak tests only; never installed.
//
//   ORLO_KILL_AT=OPERATION.CALL:N    the process dies before the N-th (from 1) CALL of OPERATION,
//                                    for example push.WriteFile:2
//   ORLO_KILL_HOW=before             what happens when nothing is said
//   ORLO_KILL_HOW=after              it dies after that call: at the cache's next one
//   ORLO_KILL_HOW=torn=BYTES         WriteFile only: BYTES are written, then it dies
//   ORLO_KILL_DELAY_MS=MS            the cache's thread waits that long before it dies, while the
//                                    other threads go on
//   ORLO_KILL_RELEASE=FILE           the same, until the file exists. With "after", the process
//   dies
//                                    then though no further call of the cache came
//
// OPERATION is push, front or pop; CALL is a file call by the name it has in TestFaults. Calls of
// the main thread don't count: it looks into directories before the cache begins to work. One
// stream only, since the cache of each has a thread of its own.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/testing/TestFaults.h"

namespace {

using Platform::TestFaults::Fault;
using Platform::TestFaults::FileCall;

enum class Operation { None, Push, Front, Pop };

struct NamedOperation {
  std::string_view name;
  Operation operation;
};

constexpr std::array kOperations{NamedOperation{"push", Operation::Push},
                                 NamedOperation{"front", Operation::Front},
                                 NamedOperation{"pop", Operation::Pop}};

struct NamedCall {
  std::string_view name;
  FileCall call;
};

constexpr std::array kCalls{NamedCall{"CreateFile", FileCall::CreateFileW},
                            NamedCall{"ReadFile", FileCall::ReadFile},
                            NamedCall{"WriteFile", FileCall::WriteFile},
                            NamedCall{"CloseHandle", FileCall::CloseHandle},
                            NamedCall{"FindFirstFile", FileCall::FindFirstFileW},
                            NamedCall{"FindNextFile", FileCall::FindNextFileW},
                            NamedCall{"CreateDirectory", FileCall::CreateDirectoryW},
                            NamedCall{"RemoveDirectory", FileCall::RemoveDirectoryW},
                            NamedCall{"GetFileAttributes", FileCall::GetFileAttributesW},
                            NamedCall{"Unlink", FileCall::Unlink}};

// A kill that silently never comes would make its test pass for nothing.
[[noreturn]] void Refuse(std::string_view variable, std::string_view value) {
  std::cerr << "KillPoints: " << variable << "=" << value << " can't be understood\n";
  std::_Exit(EXIT_FAILURE);
}

std::string_view GetVariable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

std::uint32_t ReadNumber(std::string_view text, std::string_view variable, std::string_view value) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    Refuse(variable, value);
  }
  return number;
}

[[noreturn]] void Die(std::chrono::milliseconds delay, const std::string& release) {
  std::this_thread::sleep_for(delay);
  if (!release.empty()) {
    // The process has come to the place; what it has done before is all that it does.
    ::close(::open((release + ".reached").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  }
  while (!release.empty() && ::access(release.c_str(), F_OK) != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::kill(::getpid(), SIGKILL);
  for (;;) {
    ::pause();
  }
}

class KillPoint {
 public:
  explicit KillPoint(std::string_view at) : m_mainThread(std::this_thread::get_id()) {
    ReadPlace(at);
    const std::string_view how = GetVariable("ORLO_KILL_HOW");
    if (how.starts_with("torn=") && m_call == FileCall::WriteFile) {
      m_torn = ReadNumber(how.substr(5), "ORLO_KILL_HOW", how);
      m_after = true;
    } else if (how == "after") {
      m_after = true;
    } else if (!how.empty() && how != "before") {
      Refuse("ORLO_KILL_HOW", how);
    }
    if (const std::string_view delay = GetVariable("ORLO_KILL_DELAY_MS"); !delay.empty()) {
      m_delay = std::chrono::milliseconds(ReadNumber(delay, "ORLO_KILL_DELAY_MS", delay));
    }
    m_release = GetVariable("ORLO_KILL_RELEASE");
  }

  Fault OnCall(FileCall call) {
    if (std::this_thread::get_id() == m_mainThread) {
      return {};
    }
    const std::lock_guard guard(m_lock);
    if (m_armed) {
      Die(m_delay, m_release);
    }
    Follow(call);
    if (m_current != m_operation || call != m_call || --m_left != 0) {
      return {};
    }
    if (!m_after) {
      Die(m_delay, m_release);
    }
    m_armed = true;
    if (!m_release.empty()) {
      std::thread([delay = m_delay, release = m_release] { Die(delay, release); }).detach();
    }
    return {0, m_torn};
  }

 private:
  void ReadPlace(std::string_view at) {
    const std::size_t dot = at.find('.');
    const std::size_t colon = at.find(':');
    if (dot == std::string_view::npos || colon == std::string_view::npos || colon < dot) {
      Refuse("ORLO_KILL_AT", at);
    }
    bool found = false;
    for (const auto& [name, operation] : kOperations) {
      if (name == at.substr(0, dot)) {
        m_operation = operation;
        found = true;
      }
    }
    bool foundCall = false;
    for (const auto& [name, call] : kCalls) {
      if (name == at.substr(dot + 1, colon - dot - 1)) {
        m_call = call;
        foundCall = true;
      }
    }
    m_left = ReadNumber(at.substr(colon + 1), "ORLO_KILL_AT", at);
    if (!found || !foundCall || m_left == 0) {
      Refuse("ORLO_KILL_AT", at);
    }
  }

  // Which operation the cache is in, from the calls with which each begins: a push asks for the
  // minute directory, a front opens a file without having asked, a pop deletes.
  void Follow(FileCall call) {
    if (call == FileCall::GetFileAttributesW) {
      m_current = Operation::Push;
    } else if (call == FileCall::Unlink) {
      m_current = Operation::Pop;
    } else if (call == FileCall::CreateFileW && m_last != FileCall::GetFileAttributesW &&
               m_last != FileCall::CreateDirectoryW) {
      m_current = Operation::Front;
    }
    m_last = call;
  }

  const std::thread::id m_mainThread;
  Operation m_operation = Operation::None;
  FileCall m_call = FileCall::CreateFileW;
  bool m_after = false;
  std::int64_t m_torn = -1;
  std::chrono::milliseconds m_delay{0};
  std::string m_release;

  std::mutex m_lock;
  // Guarded by m_lock.
  std::uint32_t m_left = 0;
  bool m_armed = false;
  Operation m_current = Operation::None;
  FileCall m_last = FileCall::CloseHandle;
};

// Set before main begins, while the process has one thread.
[[maybe_unused]] const bool kInstalled = [] {
  const std::string_view at = GetVariable("ORLO_KILL_AT");
  if (at.empty()) {
    return false;
  }
  // Never destroyed: the cache's thread may ask while the process ends.
  auto* const point = new KillPoint(at);
  Platform::TestFaults::SetHook([point](FileCall call) { return point->OnCall(call); });
  return true;
}();

}  // namespace
