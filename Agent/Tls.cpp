#include "Agent/Tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <climits>

namespace OrloAgent {

namespace {

struct FreeContext {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct FreeSession {
  void operator()(SSL* session) const { SSL_free(session); }
};

// What the library has noted about the last failure; clears its notes.
std::string TakeLibraryError() {
  std::string text;
  while (const unsigned long code = ERR_get_error()) {
    const char* const reason = ERR_reason_error_string(code);
    // The first note is the cause, those behind it tell through which calls it went.
    if (text.empty() && reason != nullptr) {
      text = reason;
    }
  }
  return text;
}

[[noreturn]] void Throw(const char* what, const std::string& file) {
  std::string reason = TakeLibraryError();
  throw TlsError(std::string(what) + " \"" + file + "\" can't be used (" +
                 (reason.empty() ? "unknown reason" : reason) + ")");
}

std::unique_ptr<SSL_CTX, FreeContext> MakeContext(const SSL_METHOD* method) {
  ERR_clear_error();
  std::unique_ptr<SSL_CTX, FreeContext> context(SSL_CTX_new(method));
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    throw TlsError("TLS can't be set up (" + TakeLibraryError() + ")");
  }
  // The bytes of a write that is continued may have moved to another place in memory.
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE |
                                      SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                      SSL_MODE_RELEASE_BUFFERS);
  // A peer that closes without saying so has closed; what was cut off is judged by the framing.
  SSL_CTX_set_options(context.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                                         SSL_OP_IGNORE_UNEXPECTED_EOF);
  return context;
}

void UseCertificate(SSL_CTX* context, const std::string& certificate, const std::string& key) {
  if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1) {
    Throw("certificate file", certificate);
  }
  if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    Throw("key file", key);
  }
  if (SSL_CTX_check_private_key(context) != 1) {
    TakeLibraryError();
    throw TlsError("key file \"" + key + "\" can't be used (it is not the key of \"" + certificate +
                   "\")");
  }
}

// What the handshake's failure means to an administrator.
std::string DescribeFailure(SSL* session) {
  const unsigned long first = ERR_peek_error();
  const int reason = ERR_GET_REASON(first);
  const bool isTls = ERR_GET_LIB(first) == ERR_LIB_SSL;
  std::string text = TakeLibraryError();
  if (isTls && reason == SSL_R_CERTIFICATE_VERIFY_FAILED) {
    const long verdict = SSL_get_verify_result(session);
    if (verdict != X509_V_OK) {
      return std::string("its certificate is refused: ") + X509_verify_cert_error_string(verdict);
    }
  }
  if (isTls && (reason == SSL_R_WRONG_VERSION_NUMBER || reason == SSL_R_HTTP_REQUEST ||
                reason == SSL_R_UNSUPPORTED_PROTOCOL)) {
    return "it does not speak TLS 1.2 or newer";
  }
  if (isTls && reason == SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE) {
    return "it has shown no certificate";
  }
  return text.empty() ? "the connection broke" : text;
}

}  // namespace

bool IsTlsAvailable() { return true; }

struct TlsContext::Implementation {
  std::unique_ptr<SSL_CTX, FreeContext> context;
  bool verifyServer = false;
};

TlsContext::TlsContext(std::unique_ptr<Implementation> implementation)
    : m_implementation(std::move(implementation)) {}

TlsContext::~TlsContext() = default;

std::shared_ptr<const TlsContext> TlsContext::MakeServer(const TlsServerOptions& options) {
  auto made = std::make_unique<Implementation>();
  made->context = MakeContext(TLS_server_method());
  SSL_CTX* const context = made->context.get();
  UseCertificate(context, options.certificate, options.key);
  if (!options.clientCa.empty()) {
    if (SSL_CTX_load_verify_file(context, options.clientCa.c_str()) != 1) {
      Throw("client CA file", options.clientCa);
    }
    // Named to the client, so that it can choose among its certificates.
    SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(options.clientCa.c_str()));
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    // Sessions are taken up again only within one context of this name.
    static constexpr unsigned char kName[] = "orlo";
    SSL_CTX_set_session_id_context(context, kName, sizeof kName);
  }
  return std::shared_ptr<const TlsContext>(new TlsContext(std::move(made)));
}

std::shared_ptr<const TlsContext> TlsContext::MakeClient(const TlsClientOptions& options) {
  auto made = std::make_unique<Implementation>();
  made->context = MakeContext(TLS_client_method());
  made->verifyServer = options.verify;
  SSL_CTX* const context = made->context.get();
  if (!options.certificate.empty()) {
    UseCertificate(context, options.certificate, options.key);
  }
  if (!options.ca.empty()) {
    if (SSL_CTX_load_verify_file(context, options.ca.c_str()) != 1) {
      Throw("CA file", options.ca);
    }
  } else if (SSL_CTX_set_default_verify_paths(context) != 1) {
    throw TlsError("the system's trusted roots can't be used (" + TakeLibraryError() + ")");
  }
  SSL_CTX_set_verify(context, options.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
  return std::shared_ptr<const TlsContext>(new TlsContext(std::move(made)));
}

struct TlsSession::Implementation {
  std::unique_ptr<SSL, FreeSession> session;
  std::string error;
  bool failed = false;

  Result Judge(int outcome) {
    switch (SSL_get_error(session.get(), outcome)) {
      case SSL_ERROR_WANT_READ:
        return Result::WantRead;
      case SSL_ERROR_WANT_WRITE:
        return Result::WantWrite;
      case SSL_ERROR_ZERO_RETURN:
        return Result::Closed;
      default:
        failed = true;
        error = DescribeFailure(session.get());
        return Result::Failed;
    }
  }
};

namespace {

std::unique_ptr<SSL, FreeSession> MakeSession(SSL_CTX* context,
                                              boost::asio::ip::tcp::socket& socket) {
  ERR_clear_error();
  std::unique_ptr<SSL, FreeSession> session(SSL_new(context));
  if (!session || SSL_set_fd(session.get(), static_cast<int>(socket.native_handle())) != 1) {
    throw TlsError("TLS can't be set up (" + TakeLibraryError() + ")");
  }
  return session;
}

}  // namespace

TlsSession::TlsSession(const TlsContext& context, boost::asio::ip::tcp::socket& socket)
    : m_implementation(std::make_unique<Implementation>()) {
  m_implementation->session = MakeSession(context.m_implementation->context.get(), socket);
  SSL_set_accept_state(m_implementation->session.get());
}

TlsSession::TlsSession(const TlsContext& context, boost::asio::ip::tcp::socket& socket,
                       const std::string& serverName)
    : m_implementation(std::make_unique<Implementation>()) {
  m_implementation->session = MakeSession(context.m_implementation->context.get(), socket);
  SSL* const session = m_implementation->session.get();
  SSL_set_connect_state(session);
  boost::system::error_code notAnAddress;
  boost::asio::ip::make_address(serverName, notAnAddress);
  bool set = true;
  if (notAnAddress) {
    set = SSL_set_tlsext_host_name(session, serverName.c_str()) == 1 &&
          SSL_set1_host(session, serverName.c_str()) == 1;
  } else {
    set = X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), serverName.c_str()) == 1;
  }
  if (!set && context.m_implementation->verifyServer) {
    throw TlsError("\"" + serverName + "\" can't be the name of a server (" + TakeLibraryError() +
                   ")");
  }
}

TlsSession::~TlsSession() = default;

TlsSession::Result TlsSession::Handshake() {
  if (m_implementation->failed) {
    return Result::Failed;
  }
  ERR_clear_error();
  const int outcome = SSL_do_handshake(m_implementation->session.get());
  return outcome == 1 ? Result::Done : m_implementation->Judge(outcome);
}

TlsSession::Result TlsSession::Read(char* buffer, std::size_t capacity, std::size_t& size) {
  size = 0;
  if (m_implementation->failed) {
    return Result::Failed;
  }
  ERR_clear_error();
  const int outcome = SSL_read_ex(m_implementation->session.get(), buffer, capacity, &size);
  return outcome == 1 ? Result::Done : m_implementation->Judge(outcome);
}

TlsSession::Result TlsSession::Write(std::string_view bytes, std::size_t& written) {
  written = 0;
  if (m_implementation->failed) {
    return Result::Failed;
  }
  ERR_clear_error();
  const int outcome =
      SSL_write_ex(m_implementation->session.get(), bytes.data(), bytes.size(), &written);
  return outcome == 1 ? Result::Done : m_implementation->Judge(outcome);
}

bool TlsSession::HasPending() const {
  return SSL_has_pending(m_implementation->session.get()) == 1;
}

bool TlsSession::IsConfirmed() const {
  SSL* const session = m_implementation->session.get();
  if (SSL_version(session) < TLS1_3_VERSION) {
    return SSL_is_init_finished(session) == 1;
  }
  // A server sends its tickets once it is content with the client.
  const SSL_SESSION* const ticket = SSL_get0_session(session);
  return ticket != nullptr && SSL_SESSION_is_resumable(ticket) == 1;
}

void TlsSession::CloseNotify() {
  if (!m_implementation->failed) {
    ERR_clear_error();
    SSL_shutdown(m_implementation->session.get());
    TakeLibraryError();
  }
}

const std::string& TlsSession::GetError() const { return m_implementation->error; }

}  // namespace OrloAgent
