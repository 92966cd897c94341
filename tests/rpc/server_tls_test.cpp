// The server under TLS, and a client of OpenSSL's.

#include <openssl/ssl.h>

#include <csignal>
#include <memory>

#include "rpc/raw_client.h"
#include "support/captured_stderr.h"

namespace norvel::rpc {
namespace {

const std::string kCertificate = NORVEL_TEST_CERTIFICATES "/own.pem";
const std::string kKey = NORVEL_TEST_CERTIFICATES "/own.key.pem";

struct Free {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* session) const { SSL_free(session); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

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

class TlsServer : public ServerTest {
 protected:
  uint16_t start(const ServerLimits& limits = {}) {
    make_server(limits);
    server_->set_tls(kCertificate, kKey);
    EXPECT_TRUE(server_->has_tls());
    return ServerTest::start();
  }
};

TEST_F(TlsServer, SaysWhichFileIsWrongAndKeepsWhatItHad) {
  const CapturedStderr errors;
  const std::string other_key = NORVEL_TEST_CERTIFICATES "/other.key.pem";
  const std::string none = NORVEL_TEST_CERTIFICATES "/none.pem";
  server_->set_tls(none, kKey);
  server_->set_tls(kKey, kKey);
  server_->set_tls(kCertificate, none);
  server_->set_tls(kCertificate, kCertificate);
  server_->set_tls(kCertificate, other_key);
  EXPECT_FALSE(server_->has_tls());
  server_->set_tls(kCertificate, kKey);
  server_->set_tls(kCertificate, other_key);
  EXPECT_TRUE(server_->has_tls());
  const std::string no_certificate = "[RPC] TLS: failed to load certificate: ";
  const std::string no_key = "[RPC] TLS: failed to load private key: ";
  const std::string mismatch = "[RPC] TLS: certificate/key mismatch\n";
  EXPECT_EQ(errors.text(), no_certificate + none + "\n" + no_certificate + kKey + "\n" + no_key + none + "\n" + no_key +
                               kCertificate + "\n" + mismatch + mismatch);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[RPC] TLS enabled (cert: " + kCertificate + ")\n");
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
  EXPECT_EQ(RawClient(port).read_all(), "") << "no handshake";
  const TlsClient half(port);
  half.send("POST /");
  EXPECT_EQ(half.read_all(), "cut");
  const TlsClient never_reads(port);
  never_reads.send(call_of("large"));
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
    client.send(call_of("large"));
  }
  server_->stop();
  EXPECT_TRUE(server_->wait_for_connections(kPatienceMs));
  ::sigaction(SIGPIPE, &before, nullptr);
}

}  // namespace
}  // namespace norvel::rpc
