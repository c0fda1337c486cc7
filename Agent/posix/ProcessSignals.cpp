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
  watch->signals.async_wait([watch](const boost::system::error_code& error, int number) {
    if (!error) {
      watch->onSignal(
          watch->IsReload(number) ? ProcessSignals::Request::Reload : ProcessSignals::Request::Stop,
          "Signal " + std::to_string(number));
      Wait(watch);
    }
  });
}

}  // namespace

ProcessSignals::ProcessSignals(boost::asio::io_context& context, OnSignal onSignal)
    : m_watch(std::make_shared<Watch>(context, std::move(onSignal))) {
  Wait(m_watch);
}

ProcessSignals::~ProcessSignals() {
  boost::system::error_code ignored;
  m_watch->signals.clear(ignored);
}

}  // namespace OrloAgent
