#include "old_tls_server.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <memory>
#include <stdexcept>
#include <utility>

#include "scripted_server.h"

namespace TarvoOrvane::Testing {
namespace {

using Context = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;

template <typename T>
T* Required(T* object) {
  if (object == nullptr) throw std::runtime_error("OpenSSL failed");
  return object;
}

Context MakeContext(const TestCertificate& certificate) {
  Context context(Required(SSL_CTX_new(TLS_server_method())), &SSL_CTX_free);
  SSL_CTX_set_max_proto_version(context.get(), TLS1_1_VERSION);
  // At the usual security level OpenSSL itself would refuse these versions.
  SSL_CTX_set_security_level(context.get(), 0);
  const std::unique_ptr<BIO, int (*)(BIO*)> text(BIO_new_mem_buf(certificate.certificate.c_str(), -1),
                                                 &BIO_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> key_text(BIO_new_mem_buf(certificate.key.c_str(), -1), &BIO_free);
  const std::unique_ptr<X509, void (*)(X509*)> x509(
      Required(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr)), &X509_free);
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
      Required(PEM_read_bio_PrivateKey(key_text.get(), nullptr, nullptr, nullptr)), &EVP_PKEY_free);
  if (SSL_CTX_use_certificate(context.get(), x509.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), key.get()) != 1) {
    throw std::runtime_error("the certificate can't be used");
  }
  return context;
}

/// The body of the greeting's list: a length byte, then two bytes a version.
std::vector<int> OfferedVersions(SSL* ssl) {
  const unsigned char* list = nullptr;
  std::size_t size = 0;
  if (SSL_client_hello_get0_ext(ssl, TLSEXT_TYPE_supported_versions, &list, &size) != 1) {
    return {static_cast<int>(SSL_client_hello_get0_legacy_version(ssl))};
  }
  std::vector<int> versions;
  for (std::size_t i = 1; i + 1 < size; i += 2) versions.push_back(list[i] << 8 | list[i + 1]);
  return versions;
}

int NoteOffer(SSL* ssl, int* /*alert*/, void* out) {
  *static_cast<std::vector<int>*>(out) = OfferedVersions(ssl);
  return SSL_CLIENT_HELLO_SUCCESS;
}

}  // namespace

OldTlsServer::OldTlsServer(TestCertificate certificate)
    : certificate_(std::move(certificate)), server_([this](int fd) { Serve(fd); }) {}

std::vector<int> OldTlsServer::AwaitOfferedVersions() {
  auto offered = offered_.get_future();
  if (offered.wait_for(test_support::kPatience) != std::future_status::ready) return {};
  return offered.get();
}

void OldTlsServer::Serve(int fd) {
  const timeval limit{test_support::kPatience.count(), 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const Context context = MakeContext(certificate_);
  std::vector<int> versions;
  SSL_CTX_set_client_hello_cb(context.get(), &NoteOffer, &versions);
  const std::unique_ptr<SSL, void (*)(SSL*)> ssl(Required(SSL_new(context.get())), &SSL_free);
  SSL_set_fd(ssl.get(), fd);
  if (SSL_accept(ssl.get()) == 1) shook_hands_ = true;
  if (!versions.empty() && !has_offer_.exchange(true)) offered_.set_value(versions);
}

}  // namespace TarvoOrvane::Testing
