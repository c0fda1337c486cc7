#include "Agent/ProcessSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <utility>

namespace OrloAgent {

namespace {

bool HasTerminal() {
  const int terminal = open("/dev/tty", O_RDONLY | O_NOCTTY | O_CLOEXEC);
  if (terminal >= 0) {
    close(terminal);
  }
  return terminal >= 0;
}

}  // namespace

struct ProcessSignals::Watch {
  Watch(boost::asio::io_context& context, OnSignal handler)
      : signals(context, SIGINT, SIGTERM, SIGHUP), onSignal(std::move(handler)) {}

  bool IsReload(int number) const { return number == SIGHUP && (!hadTerminal || HasTerminal()); }

  boost::asio::signal_set signals;
  OnSignal onSignal;
  const bool hadTerminal = HasTerminal();
};

namespace {

template <typename Watch>
void Wait(const std::shared_ptr<Watch>& watch) {
  // A wait that owned what it waits with would keep itself alive.
  watch->signals.async_wait(
      [weak = std::weak_ptr<Watch>(watch)](const boost::system::error_code& error, int number) {
        if (const auto held = weak.lock(); held && !error) {
          held->onSignal(held->IsReload(number) ? ProcessSignals::Request::Reload
                                                : ProcessSignals::Request::Stop,
                         "Signal " + std::to_string(number));
          Wait(held);
        }
      });
}

}  // namespace

ProcessSignals::ProcessSignals(boost::asio::io_context& context, OnSignal onSignal)
    : m_watch(std::make_shared<Watch>(context, std::move(onSignal))) {
  Wait(m_watch);
}

// The set of signals cancels its wait when it goes.
ProcessSignals::~ProcessSignals() = default;

}  // namespace OrloAgent
