#include "net/TlsFailure_p.h"

#include "net/TlsContext_p.h"

#include <QtCore/QStringList>
#include <QtCore/QtEndian>
#include <QtNetwork/QHostAddress>

#include <ctime>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

using namespace Nuvika;

namespace
{
constexpr int kMostNames = 4; // of a certificate that was issued to others
constexpr unsigned long kNameStyle = XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB;

QString printable(const unsigned char* bytes, int size)
{
    QString text = QString::fromLatin1(reinterpret_cast<const char*>(bytes), size);
    for (QChar& c : text) {
        if (c < QLatin1Char(' ') || c > QLatin1Char('~'))
            c = QLatin1Char('?');
    }
    return text;
}

// The hosts that a certificate was issued to.
QString hostsOf(X509* certificate)
{
    QStringList hosts;
    const std::unique_ptr<GENERAL_NAMES, OpenSslFree<GENERAL_NAMES_free>> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()) && hosts.size() < kMostNames; ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_DNS)
            hosts += printable(ASN1_STRING_get0_data(name->d.dNSName), ASN1_STRING_length(name->d.dNSName));
        if (name->type == GEN_IPADD) {
            const int size = ASN1_STRING_length(name->d.iPAddress);
            const unsigned char* bytes = ASN1_STRING_get0_data(name->d.iPAddress);
            if (size == 4)
                hosts += QHostAddress(qFromBigEndian<quint32>(bytes)).toString();
            else if (size == 16)
                hosts += QHostAddress(bytes).toString();
        }
    }
    return hosts.isEmpty() ? nameText(X509_get_subject_name(certificate)) : hosts.join(QStringLiteral(", "));
}

QString dateText(const ASN1_TIME* time)
{
    return timeOf(time).toString(QStringLiteral("yyyy-MM-dd HH:mm")) + QStringLiteral(" UTC");
}
} // namespace

QString Nuvika::openSslReason()
{
    const unsigned long first = ERR_get_error(); // the cause; others follow from it
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(first))
        return qt_error_string(ERR_GET_REASON(first));
    const char* reason = ERR_reason_error_string(first);
    return QString::fromLatin1(reason != nullptr ? reason : "unknown error");
}

QString Nuvika::nameText(const X509_NAME* name)
{
    const std::unique_ptr<BIO, OpenSslFree<BIO_free>> text(BIO_new(BIO_s_mem()));
    if (!text || X509_NAME_print_ex(text.get(), name, 0, kNameStyle) < 0)
        return QString();
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return QString::fromUtf8(bytes, static_cast<int>(size));
}

QDateTime Nuvika::timeOf(const ASN1_TIME* time)
{
    std::tm parts{};
    if (ASN1_TIME_to_tm(time, &parts) != 1)
        return QDateTime();
    return QDateTime(QDate(parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday),
        QTime(parts.tm_hour, parts.tm_min, parts.tm_sec), Qt::UTC);
}

void TlsFailure::set(int code, const QString& words)
{
    if (nCode != 0)
        return;
    nCode = code;
    text = words;
}

// --- certificates ----------------------------------------------------------------------------------------

QString TlsFailure::objectionOf(X509_STORE_CTX* store) const
{
    X509* certificate = X509_STORE_CTX_get_current_cert(store);
    if (certificate == nullptr)
        certificate = X509_STORE_CTX_get0_cert(store);
    return verdict(X509_STORE_CTX_get_error(store), X509_STORE_CTX_get_error_depth(store), certificate);
}

QString TlsFailure::verdict(int error, int depth, X509* certificate) const
{
    const QString subject = depth == 0 ? QStringLiteral("the certificate of %1").arg(who())
                                       : QStringLiteral("the certificate of %1, which vouches for %2,")
                                             .arg(nameText(X509_get_subject_name(certificate)), who());
    switch (error) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return QStringLiteral("%1 expired on %2").arg(subject, dateText(X509_get0_notAfter(certificate)));
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return QStringLiteral("%1 is not valid before %2")
            .arg(subject, dateText(X509_get0_notBefore(certificate)));
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return QStringLiteral("%1 was issued to another host: %2").arg(subject, hostsOf(certificate));
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        return QStringLiteral("%1 is self-signed, and not among the trusted ones").arg(subject);
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        return QStringLiteral("%1 is not among the trusted ones").arg(subject);
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        return QStringLiteral("%1 was issued by %2, which is not trusted")
            .arg(subject, nameText(X509_get_issuer_name(certificate)));
    default:
        return QStringLiteral("%1 was refused: %2")
            .arg(subject, QString::fromLatin1(X509_verify_cert_error_string(error)));
    }
}

// --- OpenSSL's errors ------------------------------------------------------------------------------------

// RFC 8446, 6.
void TlsFailure::takeAlert(int alert)
{
    switch (alert) {
    case SSL_AD_BAD_CERTIFICATE:
    case SSL_AD_UNSUPPORTED_CERTIFICATE:
    case SSL_AD_CERTIFICATE_REVOKED:
    case SSL_AD_CERTIFICATE_EXPIRED:
    case SSL_AD_CERTIFICATE_UNKNOWN:
    case SSL_AD_UNKNOWN_CA:
    case SSL_AD_ACCESS_DENIED:
        set(kVerificationRefused,
            QStringLiteral("%1 refuses our certificate: %2")
                .arg(who(), QString::fromLatin1(SSL_alert_desc_string_long(alert))));
        break;
    case TLS13_AD_CERTIFICATE_REQUIRED:
        set(kVerificationRefused, QStringLiteral("%1 wants a certificate of ours").arg(who()));
        break;
    case SSL_AD_PROTOCOL_VERSION:
        set(kOther, QStringLiteral("%1 speaks none of the TLS versions allowed here").arg(who()));
        break;
    case SSL_AD_HANDSHAKE_FAILURE:
        set(kOther,
            QStringLiteral("%1 ended the TLS handshake: no way to encrypt in common, or it wants a "
                           "certificate of ours")
                .arg(who()));
        break;
    default:
        set(kOther,
            QStringLiteral("%1 ended the TLS connection: %2")
                .arg(who(), QString::fromLatin1(SSL_alert_desc_string_long(alert))));
    }
}

void TlsFailure::takeError()
{
    const unsigned long error = ERR_peek_last_error();
    ERR_clear_error();
    const int reason = ERR_GET_REASON(error);
    if (ERR_GET_LIB(error) == ERR_LIB_SSL && reason >= SSL_AD_REASON_OFFSET) {
        takeAlert(reason - SSL_AD_REASON_OFFSET);
        return;
    }
    switch (reason) {
    case SSL_R_WRONG_VERSION_NUMBER:
    case SSL_R_HTTP_REQUEST:
    case SSL_R_HTTPS_PROXY_REQUEST:
        set(kOther, QStringLiteral("%1 does not speak TLS on this port").arg(who()));
        break;
    case SSL_R_UNSUPPORTED_PROTOCOL:
    case SSL_R_VERSION_TOO_LOW:
    case SSL_R_NO_PROTOCOLS_AVAILABLE:
        set(kOther, QStringLiteral("%1 speaks none of the TLS versions allowed here").arg(who()));
        break;
    case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE:
        set(kVerificationRefused, QStringLiteral("%1 has sent no certificate").arg(who()));
        break;
    default: {
        const char* words = ERR_reason_error_string(error);
        set(kOther,
            QStringLiteral("TLS with %1 failed: %2")
                .arg(who(), QString::fromLatin1(words != nullptr ? words : "unknown error")));
    }
    }
}
