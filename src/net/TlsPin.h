#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

class QDebug;

/// The SHA-256 of a certificate, or of its public key (SubjectPublicKeyInfo): by which a peer is known,
/// whoever issued its certificate. A public key's outlives the certificate where its owner renews that for
/// the same key. A value; threads: any.
class KEPNUVIKAUTIL_EXPORT TlsPin
{
public:
    enum Kind { eNothing, eCertificate, ePublicKey };

    /// Matches nothing.
    TlsPin() = default;
    /// \a sha256 has 32 bytes, as in NuvikaSslSocket::PeerCertificate; any others give a pin of nothing.
    static TlsPin certificate(const QByteArray& sha256) { return TlsPin(eCertificate, sha256); }
    static TlsPin publicKey(const QByteArray& sha256) { return TlsPin(ePublicKey, sha256); }
    /// A public key as curl's --pinnedpubkey takes it, "sha256//" and Base64; or a certificate's fingerprint
    /// as browsers and "openssl x509 -fingerprint -sha256" show it: 64 hexadecimal digits with or without
    /// colons or blanks between them, the words before an equals sign left out. Of anything else a pin of
    /// nothing, and \a problem tells in a sentence why.
    static TlsPin fromText(const QString& text, QString* problem = nullptr);

    Kind kind() const { return m_kind; }
    bool isNull() const { return m_kind == eNothing; }
    const QByteArray& sha256() const { return m_sha256; }
    /// As fromText() reads it: "AA:BB:..." or "sha256//..."; empty for a pin of nothing.
    QString toText() const;

    friend bool operator==(const TlsPin& a, const TlsPin& b)
    {
        return a.m_kind == b.m_kind && a.m_sha256 == b.m_sha256;
    }
    friend bool operator!=(const TlsPin& a, const TlsPin& b) { return !(a == b); }

private:
    TlsPin(Kind kind, const QByteArray& sha256);

    Kind m_kind = eNothing;
    QByteArray m_sha256;
};

KEPNUVIKAUTIL_EXPORT uint qHash(const TlsPin& pin, uint seed = 0);
/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const TlsPin& pin);
