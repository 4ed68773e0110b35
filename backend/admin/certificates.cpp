#include "backend/admin/certificates.h"

#include <array>
#include <memory>
#include <stdexcept>

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace backend {

template <auto Release> struct Releaser {
    template <class T> void operator()(T *object) const
    {
        Release(object);
    }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using CertificatePtr = std::unique_ptr<X509, Releaser<X509_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Releaser<X509_EXTENSION_free>>;
using BioPtr = std::unique_ptr<BIO, Releaser<BIO_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Releaser<GENERAL_NAMES_free>>;

constexpr long DAY_S = 86400;
constexpr int SERIAL_BYTES = 16;

struct SIGNER_T {
    X509 *certificate;
    EVP_PKEY *key;
};

static void require(bool is_done)
{
    if (is_done) return;
    std::array<char, 256> text{};
    ERR_error_string_n(ERR_get_error(), text.data(), text.size());
    throw std::runtime_error(std::string("a certificate cannot be made: ") + text.data());
}

static void addExtension(X509 *certificate, X509 *issuer, int nid, const std::string &value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

static void setSerial(X509 *certificate)
{
    std::array<unsigned char, SERIAL_BYTES> bytes{};
    require(RAND_bytes(bytes.data(), SERIAL_BYTES) == 1);
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x3fU) | 0x40U); // positive, of full length
    const std::unique_ptr<BIGNUM, Releaser<BN_free>> number(
        BN_bin2bn(bytes.data(), SERIAL_BYTES, nullptr));
    require(number &&
            BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr);
}

// signer: null for a certificate that signs itself.
static CertificatePtr makeCertificate(EVP_PKEY *key, const std::string &subject,
                                      const SIGNER_T *signer, const std::string &names)
{
    CertificatePtr made(X509_new());
    require(made != nullptr);
    X509 *certificate = made.get();
    X509 *issuer = signer == nullptr ? certificate : signer->certificate;
    require(X509_set_version(certificate, X509_VERSION_3) == 1);
    setSerial(certificate);
    // A gateway's clock may be behind.
    require(X509_gmtime_adj(X509_getm_notBefore(certificate), -DAY_S) != nullptr);
    require(X509_gmtime_adj(X509_getm_notAfter(certificate), CERTIFICATE_DAYS * DAY_S) != nullptr);
    require(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char *>(subject.c_str()), -1,
                                       -1, 0) == 1);
    require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1);
    require(X509_set_pubkey(certificate, key) == 1);
    const bool is_authority = signer == nullptr;
    addExtension(certificate, issuer, NID_basic_constraints,
                 is_authority ? "critical,CA:TRUE,pathlen:0" : "critical,CA:FALSE");
    addExtension(certificate, issuer, NID_key_usage,
                 is_authority ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
    addExtension(certificate, issuer, NID_subject_key_identifier, "hash");
    addExtension(certificate, issuer, NID_authority_key_identifier, "keyid");
    if (!is_authority) {
        addExtension(certificate, issuer, NID_ext_key_usage, "serverAuth");
        addExtension(certificate, issuer, NID_subject_alt_name, names);
    }
    require(X509_sign(certificate, signer == nullptr ? key : signer->key, EVP_sha256()) > 0);
    return made;
}

static std::string textOf(BIO *bio)
{
    char *start = nullptr;
    const long size = BIO_get_mem_data(bio, &start);
    require(size > 0);
    return {start, static_cast<std::size_t>(size)};
}

static IDENTITY_TEXT_T identityText(X509 *certificate, EVP_PKEY *key)
{
    const BioPtr public_part(BIO_new(BIO_s_mem()));
    const BioPtr secret_part(BIO_new(BIO_s_secmem()));
    require(public_part && secret_part);
    require(PEM_write_bio_X509(public_part.get(), certificate) == 1);
    require(PEM_write_bio_PrivateKey(secret_part.get(), key, nullptr, nullptr, 0, nullptr,
                                     nullptr) == 1);
    return {textOf(public_part.get()), textOf(secret_part.get())};
}

bool isAddress(const std::string &name)
{
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    return inet_pton(AF_INET, name.c_str(), bytes.data()) == 1 ||
           inet_pton(AF_INET6, name.c_str(), bytes.data()) == 1;
}

bool isHostName(const std::string &name)
{
    return !name.empty() && name.size() <= 253 && name.front() != '.' && name.front() != '-' &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  ".-_") == std::string::npos;
}

INSTALLATION_CERTIFICATES_T makeCertificates(const std::vector<std::string> &names)
{
    std::string alternatives;
    for (const std::string &name : names) {
        if (!alternatives.empty()) alternatives += ",";
        alternatives += (isAddress(name) ? "IP:" : "DNS:") + name;
    }
    const KeyPtr authority_key(EVP_EC_gen("P-256"));
    const KeyPtr server_key(EVP_EC_gen("P-256"));
    require(authority_key && server_key);
    const CertificatePtr authority =
        makeCertificate(authority_key.get(), "Remote access CA", nullptr, {});
    const SIGNER_T signer{authority.get(), authority_key.get()};
    const CertificatePtr server =
        makeCertificate(server_key.get(), "Remote access back end", &signer, alternatives);
    return {identityText(authority.get(), authority_key.get()),
            identityText(server.get(), server_key.get())};
}

static std::string addressText(const ASN1_OCTET_STRING *address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    const int family = ASN1_STRING_length(address) == 4 ? AF_INET : AF_INET6;
    (void)inet_ntop(family, ASN1_STRING_get0_data(address), text.data(), text.size());
    return text.data();
}

std::vector<std::string> certificateNames(const std::string &path)
{
    const BioPtr file(BIO_new_file(path.c_str(), "r"));
    const CertificatePtr certificate(file ? PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr)
                                          : nullptr);
    if (!certificate) throw std::runtime_error(path + ": no certificate can be read");
    const NamesPtr found(static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, nullptr, nullptr)));
    std::vector<std::string> names;
    for (int i = 0; i < sk_GENERAL_NAME_num(found.get()); i++) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(found.get(), i);
        std::string text;
        if (name->type == GEN_DNS)
            text.assign(reinterpret_cast<const char *>(ASN1_STRING_get0_data(name->d.dNSName)),
                        static_cast<std::size_t>(ASN1_STRING_length(name->d.dNSName)));
        if (name->type == GEN_IPADD) text = addressText(name->d.iPAddress);
        const bool is_own = text == "localhost" || text.starts_with("127.") || text == "::1";
        if (!text.empty() && !is_own) names.push_back(text);
    }
    return names;
}

} // namespace backend
