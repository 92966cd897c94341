// The server under TLS: certificates made here, a client of OpenSSL's.

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "rpc/raw_client.h"
#include "rpc/server.h"
#include "support/captured_stderr.h"

namespace norvel::rpc {
namespace {

struct Free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* session) const { SSL_free(session); }
  void operator()(std::FILE* file) const { std::fclose(file); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

// A self-signed certificate and its key in PEM files.
void write_pair(const std::string& certificate_file, const std::string& key_file) {
  const Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  const Owned<X509> certificate(X509_new());
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3'600);
  X509_set_pubkey(certificate.get(), key.get());
  X509_sign(certificate.get(), key.get(), EVP_sha256());
  const Owned<std::FILE> certificate_out(std::fopen(certificate_file.c_str(), "w"));
  PEM_write_X509(certificate_out.get(), certificate.get());
  const Owned<std::FILE> key_out(std::fopen(key_file.c_str(), "w"));
  PEM_write_PrivateKey(key_out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
}

class TlsClient {
 public:
  explicit TlsClient(uint16_t port, int max_version = TLS1_3_VERSION)
      : raw_(port), context_(SSL_CTX_new(TLS_client_method())) {
    const timeval patience{kPatienceMs / 1'000, 0};
    ::setsockopt(raw_.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    SSL_CTX_set_security_level(context_.get(), 0);
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context_.get(), max_version);
    session_.reset(SSL_new(context_.get()));
    SSL_set_fd(session_.get(), raw_.fd());
    connected_ = SSL_connect(session_.get()) == 1;
  }

  bool is_connected() const { return connected_; }
  const RawClient& raw() const { return raw_; }
  SSL* session() const { return session_.get(); }
  void send(std::string_view text) const { SSL_write(session_.get(), text.data(), static_cast<int>(text.size())); }

  // "cut" behind it when the server did not end the stream orderly.
  std::string read_all() const {
    std::string all;
    char chunk[16'384];
    int received;
    while ((received = SSL_read(session_.get(), chunk, sizeof chunk)) > 0) {
      all.append(chunk, static_cast<size_t>(received));
    }
    return SSL_get_error(session_.get(), received) == SSL_ERROR_ZERO_RETURN ? all : all + "cut";
  }

 private:
  RawClient raw_;
  Owned<SSL_CTX> context_;
  Owned<SSL> session_;
  bool connected_ = false;
};

class TlsServer : public testing::Test {
 protected:
  TlsServer() {
    char name[] = "/tmp/norvel_tls_XXXXXX";
    directory_ = ::mkdtemp(name);
    write_pair(file("cert"), file("key"));
    write_pair(file("cert2"), file("key2"));
    testing::internal::CaptureStdout();
  }
  ~TlsServer() override {
    server_->stop();
    EXPECT_TRUE(server_->wait_for_connections(kPatienceMs));
    testing::internal::GetCapturedStdout();
    std::filesystem::remove_all(directory_);
  }

  std::string file(const std::string& name) const { return directory_ + "/" + name; }

  uint16_t start(const ServerLimits& limits = {}) {
    server_ = std::make_unique<RpcServer>(0, "127.0.0.1", limits);
    server_->register_method("ping", [](const JsonValue& params) { return params; });
    server_->register_method("large", [](const JsonValue&) { return std::string(16'000'000, 'x'); });
    server_->set_tls(file("cert"), file("key"));
    EXPECT_TRUE(server_->has_tls() && server_->start());
    return server_->get_port();
  }

  std::string directory_;
  std::unique_ptr<RpcServer> server_ = std::make_unique<RpcServer>(0, "127.0.0.1");
};

TEST_F(TlsServer, SaysWhichFileIsWrongAndKeepsWhatItHad) {
  const CapturedStderr errors;
  server_->set_tls(file("none"), file("key"));
  server_->set_tls(file("key"), file("key"));
  server_->set_tls(file("cert"), file("none"));
  server_->set_tls(file("cert"), file("cert"));
  server_->set_tls(file("cert"), file("key2"));
  EXPECT_FALSE(server_->has_tls());
  server_->set_tls(file("cert"), file("key"));
  server_->set_tls(file("cert2"), file("key"));
  EXPECT_TRUE(server_->has_tls());
  EXPECT_EQ(errors.text(), "[RPC] TLS: failed to load certificate: " + file("none") +
                               "\n[RPC] TLS: failed to load certificate: " + file("key") +
                               "\n[RPC] TLS: failed to load private key: " + file("none") +
                               "\n[RPC] TLS: failed to load private key: " + file("cert") +
                               "\n[RPC] TLS: certificate/key mismatch\n[RPC] TLS: certificate/key mismatch\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[RPC] TLS enabled (cert: " + file("cert") + ")\n");
  testing::internal::CaptureStdout();
}

TEST_F(TlsServer, ServesTls12AndLaterOnly) {
  const uint16_t port = start();
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    const TlsClient client(port, version);
    ASSERT_TRUE(client.is_connected());
    for (const char c : post(kPing)) {
      client.send({&c, 1});
    }
    EXPECT_EQ(client.read_all(), kPong);
  }
  EXPECT_FALSE(TlsClient(port, TLS1_1_VERSION).is_connected());
  EXPECT_EQ(answer_to(port, post(kPing)).find("200 OK"), std::string::npos) << "plain text to a TLS port";
}

TEST_F(TlsServer, AnswersAClientThatHasEndedItsSide) {
  const TlsClient client(start());
  client.send(post(kPing));
  SSL_shutdown(client.session());
  client.raw().end_sending();
  EXPECT_EQ(client.read_all(), kPong);
}

TEST_F(TlsServer, HandshakeAndAnswerHaveTheirTime) {
  const uint16_t port = start({.request_ms = 300, .answer_ms = 300});
  EXPECT_EQ(RawClient(port).read_all(5'000), "") << "no handshake";
  const TlsClient half(port);
  half.send("POST /");
  EXPECT_EQ(half.read_all(), "cut");
  const TlsClient never_reads(port);
  never_reads.send(post(R"({"method":"large"})"));
  server_->stop();
  EXPECT_TRUE(server_->wait_for_connections(kPatienceMs));
}

// With the signal's usual disposition, which ends the process.
TEST_F(TlsServer, ClientThatLeavesRaisesNoSignal) {
  struct sigaction usual {};
  usual.sa_handler = SIG_DFL;
  struct sigaction before {};
  ::sigaction(SIGPIPE, &usual, &before);
  const uint16_t port = start();
  for (int i = 0; i < 5; ++i) {
    const TlsClient client(port);
    client.send(post(R"({"method":"large"})"));
  }
  server_->stop();
  EXPECT_TRUE(server_->wait_for_connections(kPatienceMs));
  ::sigaction(SIGPIPE, &before, nullptr);
}

}  // namespace
}  // namespace norvel::rpc
