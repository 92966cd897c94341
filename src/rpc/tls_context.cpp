#include "rpc/tls_context.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>

#include "core/console.h"
#include "core/file_io.h"

namespace norvel::rpc {

namespace {

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;

// A passphrase would be asked for on the terminal, which a daemon has not.
int no_passphrase(char*, int, int, void*) {
  return 0;
}

Key read_key(const std::string& path) {
  const std::unique_ptr<BIO, BioDeleter> file(BIO_new_file(path.c_str(), "r"));
  return Key(file ? PEM_read_bio_PrivateKey(file.get(), nullptr, &no_passphrase, nullptr) : nullptr);
}

int socket_of(BIO* bio) {
  return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio)));
}

int write_to_socket(BIO* bio, const char* data, int size) {
  BIO_clear_retry_flags(bio);
  const ssize_t sent = ::send(socket_of(bio), data, static_cast<size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && would_block(errno)) {
    BIO_set_retry_write(bio);
  }
  return static_cast<int>(sent);
}

int read_from_socket(BIO* bio, char* data, int size) {
  BIO_clear_retry_flags(bio);
  const ssize_t received = ::recv(socket_of(bio), data, static_cast<size_t>(size), MSG_DONTWAIT);
  if (received < 0 && would_block(errno)) {
    BIO_set_retry_read(bio);
  }
  return static_cast<int>(received);
}

long control_socket(BIO*, int command, long, void*) {
  return command == BIO_CTRL_FLUSH ? 1 : 0;  // nothing is buffered, nothing else is known
}

// OpenSSL's own socket BIO writes with write(2), which raises SIGPIPE.
BIO_METHOD* make_socket_method() {
  BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket without signals");
  if (method != nullptr) {
    BIO_meth_set_write(method, &write_to_socket);
    BIO_meth_set_read(method, &read_from_socket);
    BIO_meth_set_ctrl(method, &control_socket);
  }
  return method;
}

BIO* make_socket_bio(int socket) {
  static BIO_METHOD* const method = make_socket_method();  // for ever: sessions may outlive everything else
  BIO* bio = method == nullptr ? nullptr : BIO_new(method);
  if (bio != nullptr) {
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(socket)));
    BIO_set_init(bio, 1);
  }
  return bio;
}

}  // namespace

void TlsSessionDeleter::operator()(SSL* session) const {
  SSL_free(session);
}

void keep_openssl_until_exit() {
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

TlsContext load_tls_context(const std::string& certificate_file, const std::string& key_file) {
  ERR_clear_error();
  TlsContext context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  if (context == nullptr) {
    console::error_line("[RPC] TLS: SSL_CTX_new failed");
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  // One request a connection: nothing is resumed, and a client cannot make the
  // server negotiate again and again.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context.get(), 0);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // Key updates without end would hold a read that goes on by itself beyond its deadline.
  SSL_CTX_clear_mode(context.get(), SSL_MODE_AUTO_RETRY);
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate_file.c_str()) != 1) {
    console::error_line("[RPC] TLS: failed to load certificate: " + certificate_file);
    return nullptr;
  }
  const Key key = read_key(key_file);
  if (key == nullptr) {
    console::error_line("[RPC] TLS: failed to load private key: " + key_file);
    return nullptr;
  }
  if (X509_check_private_key(SSL_CTX_get0_certificate(context.get()), key.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1) {
    console::error_line("[RPC] TLS: certificate/key mismatch");
    return nullptr;
  }
  return context;
}

TlsSession make_tls_session(SSL_CTX* context, int socket) {
  TlsSession session(SSL_new(context));
  BIO* bio = session ? make_socket_bio(socket) : nullptr;
  if (bio == nullptr) {
    return nullptr;
  }
  SSL_set_bio(session.get(), bio, bio);  // owns it now
  SSL_set_accept_state(session.get());
  return session;
}

}  // namespace norvel::rpc
