// The server's side of TLS: certificate and key, and sessions over a socket.
//
// Threads: loading is single-threaded; a loaded context is shared by sessions of
// any thread, a session belongs to one.

#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

namespace norvel::rpc {

struct TlsSessionDeleter {
  void operator()(SSL* session) const;
};

using TlsContext = std::shared_ptr<SSL_CTX>;
using TlsSession = std::unique_ptr<SSL, TlsSessionDeleter>;

// Keeps OpenSSL from tidying up when the process exits, since threads may still
// be using it then. Works only as the first use of OpenSSL in the process.
void keep_openssl_until_exit();

// For TLS 1.2 or later with this PEM certificate chain and key, which must not be
// protected by a passphrase. Null, with the reason on standard error, on failure.
TlsContext load_tls_context(const std::string& certificate_file, const std::string& key_file);

// A session of the server over `socket`, whose operations never block and never
// raise SIGPIPE; the socket stays the caller's. Null when there is no memory.
TlsSession make_tls_session(SSL_CTX* context, int socket);

}  // namespace norvel::rpc
