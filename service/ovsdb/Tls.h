#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

namespace Ovsdb {

// The files that "ssl:" remotes need, in PEM.
struct TlsOptions {
  std::string privateKey;
  std::string certificate;
  std::string caCertificate;
};

// One TLS connection without a socket: what comes from the peer goes in by feed(), what goes to it is in
// output(). TLS 1.2 or later; the peer's certificate must be signed by the authority given. Its name is not
// compared with the host's: database servers are known by their authority alone.
//
// Errors raise std::runtime_error with the reason.
class Tls {
 public:
  // Reads the three files.
  explicit Tls(const TlsOptions& options);

  // Goes on with the handshake; returns whether it is done.
  bool handshake();
  void feed(std::string_view bytes);
  // Reads what has been decrypted; returns how much, 0 if there is none yet. `closed` is set if the peer
  // said that nothing follows.
  std::size_t read(std::span<char> into, bool& closed);
  void write(std::string_view bytes);
  // Bytes for the peer; taken from it by who sent them.
  std::string& output();

 private:
  struct Free {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  std::unique_ptr<SSL_CTX, Free> context_;
  std::unique_ptr<SSL, Free> ssl_;
  std::string output_;
};

}  // namespace Ovsdb
