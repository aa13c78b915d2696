#include "support/Certificates.h"

#include <QtCore/QFile>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace
{
void addExtension(X509* certificate, X509* issuer, int nid, const QByteArray& value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.constData());
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

X509* makeCertificate(EVP_PKEY* key, const Certificates::Wish& wish, int serial)
{
    X509* certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), 86400L * wish.nFromDays);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400L * wish.nUntilDays);
    X509_set_pubkey(certificate, key);
    const QByteArray name = wish.name.toUtf8();
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
        reinterpret_cast<const unsigned char*>(name.constData()), name.size(), -1, 0);
    return certificate;
}

void write(const QString& file, X509* certificate, EVP_PKEY* key, const QByteArray& phrase)
{
    FILE* out = std::fopen(QFile::encodeName(file).constData(), "w");
    PEM_write_X509(out, certificate);
    if (key != nullptr)
        PEM_write_PrivateKey(out, key, phrase.isEmpty() ? nullptr : EVP_aes_128_cbc(),
            phrase.isEmpty() ? nullptr : reinterpret_cast<const unsigned char*>(phrase.constData()),
            phrase.size(), nullptr, nullptr);
    std::fclose(out);
}
} // namespace

struct Certificates::Pair {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = nullptr;
    ~Pair()
    {
        X509_free(certificate);
        EVP_PKEY_free(key);
    }
};

Certificates::Certificates(const QString& authority) : m_pAuthority(new Pair)
{
    Pair& own = *m_pAuthority;
    own.certificate = makeCertificate(own.key, {authority, {}, -100, 100}, m_nSerial);
    X509_set_issuer_name(own.certificate, X509_get_subject_name(own.certificate));
    addExtension(own.certificate, own.certificate, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(own.certificate, own.certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
    X509_sign(own.certificate, own.key, EVP_sha256());
    write(this->authority(), own.certificate, nullptr, {});
}

Certificates::~Certificates() = default;

QString Certificates::issue(const Wish& wish)
{
    Pair made;
    made.certificate = makeCertificate(made.key, wish, ++m_nSerial);
    Pair& issuer = wish.bSelfSigned ? made : *m_pAuthority;
    X509_set_issuer_name(made.certificate, X509_get_subject_name(issuer.certificate));
    if (!wish.hosts.isEmpty())
        addExtension(made.certificate, issuer.certificate, NID_subject_alt_name, wish.hosts.toLatin1());
    X509_sign(made.certificate, issuer.key, EVP_sha256());
    const QString file = m_folder.filePath(QString::number(m_nSerial) + QLatin1String(".pem"));
    write(file, made.certificate, made.key, wish.passPhrase);
    return file;
}

QString Certificates::forLocalhost()
{
    if (m_localhost.isEmpty())
        m_localhost = issue({QStringLiteral("cam-7"), QStringLiteral("DNS:localhost,IP:127.0.0.1")});
    return m_localhost;
}
