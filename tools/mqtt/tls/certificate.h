// Certificates and keys, and what to say of them. All text is safe to show.
#pragma once

#include <memory>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <string>
#include <vector>

namespace kp::mqtt {

template <auto Free> struct FreeWith {
    template <typename T> void operator()(T *pointer) const
    {
        Free(pointer);
    }
};
using CertificatePtr = std::unique_ptr<X509, FreeWith<X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;

// The reason of the last error of this thread, which is forgotten then.
std::string openssl_error();

// As "CN=authority,O=plant".
std::string name_text(const X509_NAME *name);

// Whom it is for: its first names and addresses, or its subject where it has none.
std::string holders(X509 &certificate);

// As "2026-11-22 09:44 UTC".
std::string date_text(const ASN1_TIME *time);

// Says that the time of the certificate is over or has not begun, or an empty text.
std::string date_problem(const X509 &certificate);

// All that a PEM file holds; none where it holds no certificate or one that cannot be read.
std::vector<CertificatePtr> read_certificates(const std::string &path);

// Says it of the first certificate in a file.
std::string file_date_problem(const std::string &path);

// What is wrong with the files of a connection beside their rights, one line each: with single
// files, and a key that is another certificate's.
std::vector<std::string> content_problems(const std::string &ca_file, const std::string &cert_file,
                                          const std::string &key_file);

} // namespace kp::mqtt
