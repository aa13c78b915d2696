// Private: why TLS failed, as a code and in words for a person.
#pragma once

#include "platform/ErrorCodes_p.h"

#include <QtCore/QDateTime>
#include <QtCore/QString>

#include <openssl/x509.h>

namespace Nuvika
{
struct TlsFailure {
    static constexpr int kHandshakeTimeout = ErrorCodes::kHandshakeTimeout;
    static constexpr int kVerificationRefused = ErrorCodes::kAccessDenied;
    static constexpr int kOther = ErrorCodes::kConnectionAborted;

    QString peer; // as it was called when connecting; empty on the server's side
    int nCode = 0;
    QString text;

    // What OpenSSL has against the peer's certificate.
    QString objectionOf(X509_STORE_CTX* store) const;
    // OpenSSL's last error, unless a certificate was refused.
    void takeError();
    void set(int code, const QString& words); // the first one counts
    QString who() const { return peer.isEmpty() ? QStringLiteral("the peer") : peer; }

private:
    QString verdict(int error, int depth, X509* certificate) const;
    void takeAlert(int alert);
};

// What OpenSSL says about the call that has just failed; the system's reason where it has one.
QString openSslReason();
// Control characters of a certificate come escaped.
QString nameText(const X509_NAME* name);
QDateTime timeOf(const ASN1_TIME* time);
} // namespace Nuvika
