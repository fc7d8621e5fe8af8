// Listens to the TLS handshake of one connection, so that a failure can be told in words;
// libmosquitto says nothing but that there was one. Written by the thread that connects, and
// afterwards by the link's; whoever asks has waited for the first.
#pragma once

#include "tls/certificate.h"

#include <openssl/ssl.h>
#include <string>

namespace kp::mqtt {

class Handshake {
  public:
    // The host whose certificate is wanted, and whether this device has one of its own.
    Handshake(std::string host, bool has_certificate);
    Handshake(const Handshake &) = delete;
    Handshake &operator=(const Handshake &) = delete;

    // For the connection, with the settings that the client adds. The client must not outlive this
    // object.
    SSL_CTX *context() const
    {
        return context_.get();
    }

    // Why the connection cannot stand, or an empty text where nothing of TLS is the reason.
    std::string problem() const;

  private:
    static int verify(X509_STORE_CTX *check, void *self);
    static void hear(int is_sent, int version, int kind, const void *bytes, size_t size, SSL *,
                     void *self);
    std::string refusal_of(X509_STORE_CTX &check) const;

    const std::string host_;
    const bool has_certificate_;
    std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>> context_;
    bool has_asked_ = false;         // this side has begun
    bool is_answered_ = false;       // by something that speaks TLS
    std::string refusal_;            // of the broker's certificate
    bool wants_certificate_ = false; // the broker, of this device
    int alert_ = -1;                 // what the broker has said at its end
};

// How the connection is protected, as "TLSv1.3, certificate for HOSTS, good until DATE".
std::string protection(SSL *connection);

} // namespace kp::mqtt
