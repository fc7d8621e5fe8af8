#include "tls/handshake.h"

#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

namespace kp::mqtt {

namespace {

constexpr size_t kAlertBytes = 2; // level and description

bool is_unknown_authority(int error)
{
    return error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT ||
           error == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
           error == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
           error == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN ||
           error == X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE ||
           error == X509_V_ERR_CERT_UNTRUSTED;
}

bool is_about_this_side(int alert)
{
    return alert == SSL_AD_BAD_CERTIFICATE || alert == SSL_AD_CERTIFICATE_UNKNOWN ||
           alert == SSL_AD_CERTIFICATE_EXPIRED || alert == SSL_AD_UNKNOWN_CA ||
           alert == SSL_AD_CERTIFICATE_REVOKED || alert == SSL_AD_UNSUPPORTED_CERTIFICATE;
}

// An address stands among the addresses of a certificate, or where it has no names as its name.
bool is_for(X509 *certificate, const std::string &host)
{
    return certificate && (X509_check_ip_asc(certificate, host.c_str(), 0) == 1 ||
                           X509_check_host(certificate, host.data(), host.size(), 0, nullptr) == 1);
}

} // namespace

Handshake::Handshake(std::string host, bool has_certificate)
    : host_(std::move(host)), has_certificate_(has_certificate),
      context_(SSL_CTX_new(TLS_client_method()))
{
    if (!context_)
        return;
    SSL_CTX_set_cert_verify_callback(context_.get(), verify, this);
    SSL_CTX_set_msg_callback(context_.get(), hear);
    SSL_CTX_set_msg_callback_arg(context_.get(), this);
}

// Checks the chain and the host. libmosquitto's own callback, which is not used here, refuses every
// certificate of a context that it has not made itself.
int Handshake::verify(X509_STORE_CTX *check, void *self)
{
    auto &handshake = *static_cast<Handshake *>(self);
    X509_STORE_CTX_set_verify_cb(check, [](int result, X509_STORE_CTX *) { return result; });
    int result = X509_verify_cert(check);
    X509 *leaf = X509_STORE_CTX_get0_cert(check);
    if (result == 1 && !is_for(leaf, handshake.host_)) {
        X509_STORE_CTX_set_error(check, X509_V_ERR_HOSTNAME_MISMATCH);
        result = 0;
    }
    if (result != 1)
        handshake.refusal_ = handshake.refusal_of(*check);
    return result == 1 ? 1 : 0;
}

std::string Handshake::refusal_of(X509_STORE_CTX &check) const
{
    const int error = X509_STORE_CTX_get_error(&check);
    X509 *leaf = X509_STORE_CTX_get0_cert(&check);
    if (leaf && error == X509_V_ERR_HOSTNAME_MISMATCH)
        return "the broker's certificate is for " + holders(*leaf) + ", not for " + host_;
    X509 *culprit = X509_STORE_CTX_get_current_cert(&check);
    if (!culprit || !leaf)
        return X509_verify_cert_error_string(error);
    const std::string whose = culprit == leaf ? "the broker's certificate"
                                              : "the certificate of the authority " +
                                                    name_text(X509_get_subject_name(culprit));
    if (error == X509_V_ERR_CERT_HAS_EXPIRED || error == X509_V_ERR_CERT_NOT_YET_VALID)
        return whose + " " + date_problem(*culprit);
    if (is_unknown_authority(error))
        return "the broker's certificate comes from an authority that is not trusted here: " +
               name_text(X509_get_issuer_name(culprit)) + "; see ca-file";
    return whose + ": " + X509_verify_cert_error_string(error);
}

void Handshake::hear(int is_sent, int, int kind, const void *bytes, size_t size, SSL *, void *self)
{
    auto &handshake = *static_cast<Handshake *>(self);
    handshake.has_asked_ = handshake.has_asked_ || is_sent;
    if (is_sent || (kind != SSL3_RT_HANDSHAKE && kind != SSL3_RT_ALERT))
        return;
    handshake.is_answered_ = true;
    const auto *message = static_cast<const unsigned char *>(bytes);
    if (kind == SSL3_RT_HANDSHAKE && size > 0 && message[0] == SSL3_MT_CERTIFICATE_REQUEST)
        handshake.wants_certificate_ = true;
    if (kind == SSL3_RT_ALERT && size == kAlertBytes && message[1] != SSL_AD_CLOSE_NOTIFY)
        handshake.alert_ = message[1];
}

std::string Handshake::problem() const
{
    if (!refusal_.empty())
        return "TLS: " + refusal_;
    if (alert_ >= 0)
        return std::string("TLS: the broker breaks off: ") + SSL_alert_desc_string_long(alert_) +
               (is_about_this_side(alert_) ? "; it does not accept the certificate of this device"
                                           : "");
    if (has_asked_ && !is_answered_)
        return "TLS: the port does not answer in TLS; is it one for plain text?";
    // What the broker said at the end need not have been read, where writing failed before.
    if (wants_certificate_ && !has_certificate_)
        return "TLS: the broker wants a certificate, which this device has none of; see cert-file";
    return {};
}

std::string protection(SSL *connection)
{
    const CertificatePtr certificate(SSL_get1_peer_certificate(connection));
    if (!certificate)
        return SSL_get_version(connection);
    return std::string(SSL_get_version(connection)) + ", certificate for " + holders(*certificate) +
           ", good until " + date_text(X509_get0_notAfter(certificate.get()));
}

} // namespace kp::mqtt
