#include "Agent/ProcessSignals.h"

#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <mutex>
#include <utility>

#include "Platform/Windows.h"

namespace OrloAgent {

// Posts to the context once per signal.
struct ProcessSignals::Watch : std::enable_shared_from_this<Watch> {
  Watch(boost::asio::io_context& waited, OnSignal handler)
      : context(waited), onSignal(std::move(handler)), raised(waited, SIGTERM) {}

  void Come(const char* name) {
    boost::asio::post(context,
                      [self = shared_from_this(), name] { self->onSignal(Request::Stop, name); });
  }

  void WaitForRaised() {
    raised.async_wait([self = shared_from_this()](const boost::system::error_code& error, int) {
      if (!error) {
        self->onSignal(Request::Stop, "SIGTERM");
        self->WaitForRaised();
      }
    });
  }

  // Called by the system on a thread of its own.
  static BOOL WINAPI OnControl(DWORD event);

  boost::asio::io_context& context;
  OnSignal onSignal;
  boost::asio::signal_set raised;

  static std::mutex lock;
  static Watch* current;  // guarded by the lock
};

std::mutex ProcessSignals::Watch::lock;
ProcessSignals::Watch* ProcessSignals::Watch::current = nullptr;

BOOL WINAPI ProcessSignals::Watch::OnControl(DWORD event) {
  const auto tell = [](const char* name) {
    const std::lock_guard guard(lock);
    if (current != nullptr) {
      current->Come(name);
    }
    return current != nullptr;
  };
  switch (event) {
    case CTRL_C_EVENT:
      return tell("Ctrl+C");
    case CTRL_BREAK_EVENT:
      return tell("Ctrl+Break");
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      if (tell(event == CTRL_CLOSE_EVENT ? "The closing of the console"
                                         : "The end of the session")) {
        // The system ends the process when this returns. It ends by itself when it has stopped.
        Sleep(INFINITE);
      }
      return FALSE;
    default:
      return FALSE;
  }
}

ProcessSignals::ProcessSignals(boost::asio::io_context& context, OnSignal onSignal)
    : m_watch(std::make_shared<Watch>(context, std::move(onSignal))) {
  {
    const std::lock_guard guard(Watch::lock);
    Watch::current = m_watch.get();
  }
  // A process that was started in a group of its own ignores Ctrl+C until it says otherwise.
  SetConsoleCtrlHandler(nullptr, FALSE);
  // Stays for good: without an object it leaves all to the system, and to take it away would wait
  // for the handler, which does not return when the console is closed.
  static const BOOL bRegistered = SetConsoleCtrlHandler(&Watch::OnControl, TRUE);
  static_cast<void>(bRegistered);
  m_watch->WaitForRaised();
}

ProcessSignals::~ProcessSignals() {
  const std::lock_guard guard(Watch::lock);
  Watch::current = nullptr;
  boost::system::error_code ignored;
  // The wait first: of one whose signals are gone nothing is heard any more, and the context's
  // destructor waits for it.
  m_watch->raised.cancel(ignored);
  m_watch->raised.clear(ignored);
}

}  // namespace OrloAgent
