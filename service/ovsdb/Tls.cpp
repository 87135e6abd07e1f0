#include "service/ovsdb/Tls.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include <limits>
#include <stdexcept>

namespace Ovsdb {

namespace {

[[noreturn]] void fail(const std::string& what) {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  const char* const reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  throw std::runtime_error("TLS: " + what + (reason == nullptr ? "" : ": " + std::string{reason}));
}

int lengthOf(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

}  // namespace

Tls::Tls(const TlsOptions& options) : context_(SSL_CTX_new(TLS_client_method())) {
  if (!context_) {
    fail("no context");
  }
  SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
  SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_load_verify_locations(context_.get(), options.caCertificate.c_str(), nullptr) != 1) {
    fail("the CA certificate \"" + options.caCertificate + "\" cannot be read");
  }
  if (SSL_CTX_use_certificate_chain_file(context_.get(), options.certificate.c_str()) != 1) {
    fail("the certificate \"" + options.certificate + "\" cannot be read");
  }
  if (SSL_CTX_use_PrivateKey_file(context_.get(), options.privateKey.c_str(), SSL_FILETYPE_PEM) != 1) {
    fail("the private key \"" + options.privateKey + "\" cannot be used");
  }
  ssl_.reset(SSL_new(context_.get()));
  if (!ssl_) {
    fail("no connection");
  }
  // The connection owns both.
  SSL_set_bio(ssl_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_connect_state(ssl_.get());
}

bool Tls::handshake() {
  const int result = SSL_do_handshake(ssl_.get());
  if (result == 1) {
    return true;
  }
  const int error = SSL_get_error(ssl_.get(), result);
  if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
    const long verified = SSL_get_verify_result(ssl_.get());
    if (verified != X509_V_OK) {
      throw std::runtime_error("TLS: the peer's certificate is refused: " +
                               std::string{X509_verify_cert_error_string(verified)});
    }
    fail("the handshake failed");
  }
  return false;
}

void Tls::feed(std::string_view bytes) {
  if (!bytes.empty() && BIO_write(SSL_get_rbio(ssl_.get()), bytes.data(), lengthOf(bytes.size())) <= 0) {
    fail("no room");
  }
}

std::size_t Tls::read(std::span<char> into, bool& closed) {
  std::size_t total = 0;
  while (total < into.size()) {
    const int got = SSL_read(ssl_.get(), into.data() + total, lengthOf(into.size() - total));
    if (got > 0) {
      total += static_cast<std::size_t>(got);
      continue;
    }
    const int error = SSL_get_error(ssl_.get(), got);
    closed = error == SSL_ERROR_ZERO_RETURN;
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE && !closed) {
      fail("what came cannot be decrypted");
    }
    break;
  }
  return total;
}

void Tls::write(std::string_view bytes) {
  if (!bytes.empty() && SSL_write(ssl_.get(), bytes.data(), lengthOf(bytes.size())) <= 0) {
    fail("nothing can be written");
  }
}

std::string& Tls::output() {
  char bytes[16384];
  for (int got = BIO_read(SSL_get_wbio(ssl_.get()), bytes, sizeof bytes); got > 0;
       got = BIO_read(SSL_get_wbio(ssl_.get()), bytes, sizeof bytes)) {
    output_.append(bytes, static_cast<std::size_t>(got));
  }
  return output_;
}

}  // namespace Ovsdb
