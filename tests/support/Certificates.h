// Certificates for one test run: an authority, and what it issues.
#pragma once

#include <QtCore/QString>
#include <QtCore/QTemporaryDir>

#include <memory>
#include <openssl/x509.h>

class Certificates
{
public:
    explicit Certificates(const QString& authority = QStringLiteral("Test authority"));
    ~Certificates();

    struct Wish {
        QString name; // common name
        QString hosts; // as subjectAltName takes them: "DNS:localhost,IP:127.0.0.1"
        int nFromDays = -1;
        int nUntilDays = 30;
        bool bSelfSigned = false;
        QByteArray passPhrase = {};
    };
    QString authority() const { return m_folder.filePath(QStringLiteral("authority.pem")); }
    QString folder() const { return m_folder.path(); }
    // A PEM file with chain and key.
    QString issue(const Wish& wish);
    QString forLocalhost();

private:
    struct Pair;
    QTemporaryDir m_folder;
    std::unique_ptr<Pair> m_pAuthority;
    QString m_localhost;
    int m_nSerial = 1;
};

// Those of a whole program.
inline Certificates& certificates()
{
    static Certificates s_certificates;
    return s_certificates;
}
