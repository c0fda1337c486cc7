#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Agent/Options.h"

namespace OrloAgent {

struct HttpAnswer {
  unsigned status = 200;
  std::string contentType;
  std::string body;
};

// Gives the answer to a GET of a path (without what follows "?", which comes second).
using HttpHandler = std::function<HttpAnswer(const std::string& path, const std::string& query)>;

// A small HTTP/1.1 server for the monitor. One thread serves all connections and calls the handler.
//
// It is made to be left alone by whoever connects: requests have at most 8 KiB and no body, each
// connection has ten seconds for a request and `answerTime` for taking the answer, and there are at
// most 64 connections, of which the one whose request is the oldest gives way to a new one.
//
// With a token every request must carry it, as bearer token or as the password of any user, else it
// is answered with 401. Without one, the host that is asked for must be an address or localhost: a
// page of a foreign site, whose name leads here, is answered with 421.
class HttpServer {
 public:
  // Listens before it returns; throws InitializationException.
  HttpServer(const MonitorOptions& options, HttpHandler handler,
             std::chrono::milliseconds answerTime = std::chrono::minutes(1));

  // Ends all connections.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::uint16_t GetPort() const;

 private:
  class Listener;
  std::unique_ptr<Listener> m_listener;
};

}  // namespace OrloAgent
