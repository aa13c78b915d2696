// The server side of Digest authentication (RFC 2617, MD5, qop auth), as a camera has it.
#pragma once

#include <KepNuvikaUtil/HttpRequestHeader.h>

#include <QtCore/QByteArray>

class DigestGuard
{
public:
    DigestGuard(const QByteArray& realm, const QByteArray& user, const QByteArray& password);

    bool admits(const HttpRequestHeader& request) const;
    QString challenge() const;

private:
    QByteArray m_realm;
    QByteArray m_user;
    QByteArray m_ha1;
    QByteArray m_nonce;
};
