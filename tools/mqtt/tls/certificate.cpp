#include "tls/certificate.h"

#include "common/text/text.h"

#include <array>
#include <ctime>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace kp::mqtt {

namespace {

using FilePtr = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;

constexpr size_t kMostNames = 4;

FilePtr open_file(const std::string &path)
{
    return FilePtr(BIO_new_file(path.c_str(), "r"));
}

std::string address_text(const ASN1_OCTET_STRING *address)
{
    const unsigned char *bytes = ASN1_STRING_get0_data(address);
    const int size = ASN1_STRING_length(address);
    std::string text;
    for (int at = 0; at < size; at += size == 4 ? 1 : 2) {
        std::array<char, 8> part{};
        if (size == 4)
            (void)std::snprintf(part.data(), part.size(), "%s%d", at ? "." : "", bytes[at]);
        else if (at + 1 < size)
            (void)std::snprintf(part.data(), part.size(), "%s%x", at ? ":" : "",
                                bytes[at] * 256 + bytes[at + 1]);
        text += part.data();
    }
    return text;
}

std::string holder_text(const GENERAL_NAME *name)
{
    if (name->type == GEN_IPADD)
        return address_text(name->d.iPAddress);
    if (name->type != GEN_DNS)
        return {};
    const auto *text = reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.dNSName));
    return tool::escaped({text, static_cast<size_t>(ASN1_STRING_length(name->d.dNSName))});
}

// Nobody can be asked for a password, so a file that wants one gets an empty one.
int note_encryption(char *, int, int, void *is_encrypted)
{
    *static_cast<bool *>(is_encrypted) = true;
    return -1;
}

std::string key_problem(const std::string &path, KeyPtr &key)
{
    bool is_encrypted = false;
    const FilePtr file = open_file(path);
    if (file)
        key.reset(PEM_read_bio_PrivateKey(file.get(), nullptr, note_encryption, &is_encrypted));
    if (key)
        return {};
    const std::string why = openssl_error();
    return is_encrypted
               ? path + ": is encrypted, and nobody could be asked for its password"
               : path + ": holds no private key in PEM form that can be read (" + why + ")";
}

std::string certificate_problem(const std::string &path, std::vector<CertificatePtr> &found)
{
    found = read_certificates(path);
    return found.empty() ? path + ": holds no certificate in PEM form that can be read (" +
                               openssl_error() + ")"
                         : "";
}

} // namespace

std::string openssl_error()
{
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    std::string text = reason ? reason : "unknown reason";
    ERR_clear_error();
    return text;
}

std::string name_text(const X509_NAME *name)
{
    const FilePtr memory(BIO_new(BIO_s_mem()));
    if (!memory || X509_NAME_print_ex(memory.get(), name, 0, XN_FLAG_RFC2253) < 0)
        return "?";
    const char *text = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &text);
    return tool::escaped({text, static_cast<size_t>(size)});
}

std::string holders(X509 &certificate)
{
    using Names = std::unique_ptr<GENERAL_NAMES, FreeWith<GENERAL_NAMES_free>>;
    const Names names(static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::string text;
    size_t count = 0;
    for (int at = 0; names && at < sk_GENERAL_NAME_num(names.get()); ++at) {
        const std::string holder = holder_text(sk_GENERAL_NAME_value(names.get(), at));
        if (!holder.empty() && ++count <= kMostNames)
            text += (text.empty() ? "" : ", ") + holder;
    }
    if (count > kMostNames)
        text += " and others";
    return text.empty() ? name_text(X509_get_subject_name(&certificate)) : text;
}

std::string date_text(const ASN1_TIME *time)
{
    std::tm parts{};
    std::array<char, 40> text{};
    if (ASN1_TIME_to_tm(time, &parts) != 1 ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts) == 0)
        return "?";
    return text.data();
}

std::string date_problem(const X509 &certificate)
{
    const ASN1_TIME *end = X509_get0_notAfter(&certificate);
    const ASN1_TIME *begin = X509_get0_notBefore(&certificate);
    if (X509_cmp_current_time(end) < 0)
        return "expired on " + date_text(end);
    if (X509_cmp_current_time(begin) > 0)
        return "is good only from " + date_text(begin) + " on; is the clock of this device right?";
    return {};
}

std::string file_date_problem(const std::string &path)
{
    const auto certificates = read_certificates(path);
    const std::string problem = certificates.empty() ? "" : date_problem(*certificates[0]);
    return problem.empty() ? "" : path + ": " + problem;
}

std::vector<CertificatePtr> read_certificates(const std::string &path)
{
    std::vector<CertificatePtr> found;
    const FilePtr file = open_file(path);
    while (file) {
        CertificatePtr certificate(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
        if (!certificate)
            break;
        found.push_back(std::move(certificate));
    }
    const bool is_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    if (!is_end)
        found.clear();
    else if (!found.empty())
        ERR_clear_error();
    return found;
}

std::vector<std::string> content_problems(const std::string &ca_file, const std::string &cert_file,
                                          const std::string &key_file)
{
    std::vector<std::string> problems;
    const auto note = [&problems](std::string problem) {
        if (!problem.empty())
            problems.push_back(std::move(problem));
    };
    std::vector<CertificatePtr> certificates;
    KeyPtr key;
    if (!ca_file.empty())
        note(certificate_problem(ca_file, certificates));
    certificates.clear();
    if (!cert_file.empty())
        note(certificate_problem(cert_file, certificates));
    if (!key_file.empty())
        note(key_problem(key_file, key));
    if (!certificates.empty() && key &&
        X509_check_private_key(certificates[0].get(), key.get()) != 1)
        note(key_file + ": is not the key of the certificate in " + cert_file);
    ERR_clear_error();
    return problems;
}

} // namespace kp::mqtt
