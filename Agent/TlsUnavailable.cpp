#include "Agent/Tls.h"

// For builds without OpenSSL: a context can't be made, so there is never a session.
namespace OrloAgent {

struct TlsContext::Implementation {};
struct TlsSession::Implementation {
  std::string error;
};

bool IsTlsAvailable() { return false; }

std::shared_ptr<const TlsContext> TlsContext::MakeServer(const TlsServerOptions&) {
  throw TlsError("this program was built without TLS");
}

std::shared_ptr<const TlsContext> TlsContext::MakeClient(const TlsClientOptions&) {
  throw TlsError("this program was built without TLS");
}

TlsContext::~TlsContext() = default;

TlsSession::TlsSession(const TlsContext&, boost::asio::ip::tcp::socket&) {}
TlsSession::TlsSession(const TlsContext&, boost::asio::ip::tcp::socket&, const std::string&) {}
TlsSession::~TlsSession() = default;
TlsSession::Result TlsSession::Handshake() { return Result::Failed; }
TlsSession::Result TlsSession::Read(char*, std::size_t, std::size_t&) { return Result::Failed; }
TlsSession::Result TlsSession::Write(std::string_view, std::size_t&) { return Result::Failed; }
bool TlsSession::HasPending() const { return false; }
bool TlsSession::IsConfirmed() const { return false; }
void TlsSession::CloseNotify() {}
const std::string& TlsSession::GetError() const { return m_implementation->error; }

}  // namespace OrloAgent
