#include "tests/support/test_certificates.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/mman.h>

static void addExtension(X509 *certificate, X509 *issuer, int nid, const char *value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    EXPECT_NE(extension, nullptr) << value;
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

IDENTITY_T makeIdentity(const CERTIFICATE_REQUEST_T &request, const IDENTITY_T *issuer)
{
    static long serial = 1;
    IDENTITY_T made{KeyPtr{EVP_EC_gen("P-256")}, CertificatePtr{X509_new()}};
    X509 *certificate = made.certificate.get();
    X509 *signer = issuer ? issuer->certificate.get() : certificate;
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), request.ends_in_s);
    const auto *text = reinterpret_cast<const unsigned char *>(request.subject);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC, text, -1, -1,
                               0);
    X509_set_issuer_name(certificate, X509_get_subject_name(signer));
    X509_set_pubkey(certificate, made.key.get());
    if (request.authority)
        addExtension(certificate, signer, NID_basic_constraints, "critical,CA:TRUE");
    if (*request.names) addExtension(certificate, signer, NID_subject_alt_name, request.names);
    EXPECT_GT(X509_sign(certificate, issuer ? issuer->key.get() : made.key.get(), EVP_sha256()), 0);
    return made;
}

PEM_FILE_T pemFile(std::initializer_list<const IDENTITY_T *> identities)
{
    UniqueFd file{memfd_create("pem", MFD_CLOEXEC)};
    std::string path = "/proc/self/fd/" + std::to_string(file.get());
    FILE *stream = fopen(path.c_str(), "we");
    for (const IDENTITY_T *identity : identities)
        EXPECT_EQ(PEM_write_X509(stream, identity->certificate.get()), 1);
    EXPECT_EQ(fclose(stream), 0);
    return {std::move(file), std::move(path)};
}
