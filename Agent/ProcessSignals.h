#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string>

namespace OrloAgent {

// What the system or its administrator asks of the agent, for as long as the object lives; the
// process's own reaction comes back afterwards. One object at a time.
//
//   POSIX    SIGINT and SIGTERM ask it to stop. SIGHUP asks a service to read its files again, and
//            tells a program that its terminal has ended: then it is to stop, in good order
//   Windows  Ctrl+C, Ctrl+Break, the closing of the console, the end of the session and of the
//            system ask it to stop, and SIGTERM, which only the process itself can raise. Windows
//            ends the process some seconds after the closing of the console or the end of the
//            session, whether it has stopped or not. Nothing asks to reload
class ProcessSignals {
 public:
  enum class Request { Stop, Reload };

  // `onSignal` gets a text that names the signal, each time one comes, on a thread that runs the
  // context, which must outlive the object.
  using OnSignal = std::function<void(Request request, const std::string& name)>;
  ProcessSignals(boost::asio::io_context& context, OnSignal onSignal);
  ~ProcessSignals();
  ProcessSignals(const ProcessSignals&) = delete;
  ProcessSignals& operator=(const ProcessSignals&) = delete;

 private:
  struct Watch;
  std::shared_ptr<Watch> m_watch;
};

}  // namespace OrloAgent
