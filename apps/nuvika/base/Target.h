// A camera's or server's address as a URL gives it.
#pragma once

#include <KepNuvikaUtil/HttpsClient.h>

#include <QtCore/QString>

#include <memory>

struct Target {
    QString host;
    unsigned short port = 80;
    QString path; // with the query
    QString user;
    QString password;
    bool bTls = false;
    QString trusted; // PEM file or folder; empty: the system's
    QString certificate; // PEM file with ours and its key, or empty
    bool bInsecure = false; // nobody's certificate is verified

    // False with a sentence for the user.
    static bool parse(const QString& url, Target* target, QString* problem);
    // Without the credentials.
    QString shown() const;
    // What a Host field says (RFC 9110, section 7.2): an IPv6 address in brackets, the port unless it is the
    // scheme's own.
    QString authority() const;
    std::unique_ptr<HttpsClient> makeClient(bool bKeepAlive) const;
};
