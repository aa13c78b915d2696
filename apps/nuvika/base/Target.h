// A camera's or server's address as a URL gives it.
#pragma once

#include <KepNuvikaUtil/HttpsClient.h>
#include <KepNuvikaUtil/RtspOptions.h>

#include <QtCore/QString>

#include <memory>

struct Target {
    enum Schemes { eHttp, eRtsp, eBoth }; // each with its variant over TLS

    bool bRtsp = false;
    QString host;
    unsigned short port = 80;
    QString path; // with the query; of RTSP as it was given
    QString user;
    QString password;
    bool bTls = false;
    QString trusted; // PEM file or folder; empty: the system's
    QString certificate; // PEM file with ours and its key, or empty
    bool bInsecure = false; // nobody's certificate is verified
    QList<TlsPin> pins; // those that are believed, and no others
    QString proxyHost; // of HTTP; empty: none
    unsigned short proxyPort = 0;
    QString proxyUser;
    QString proxyPassword;
    RtspOptions::Transport transport = RtspOptions::eAutomatic; // of RTSP

    // False with a sentence for the user.
    static bool parse(const QString& url, Schemes schemes, Target* target, QString* problem);
    // http://[user:password@]host[:port] of a proxy. False with a sentence for the user.
    bool chooseProxy(const QString& url, QString* problem);
    // Without the credentials.
    QString shown() const;
    // What a Host field says (RFC 9110, section 7.2): an IPv6 address in brackets, the port unless it is the
    // scheme's own.
    QString authority() const;
    std::unique_ptr<HttpsClient> makeClient(bool bKeepAlive) const;
    // What RtspClient::start() takes, beside the credentials.
    QString rtspUrl() const { return scheme() + QLatin1String("://") + authority() + path; }
    RtspOptions rtspOptions() const;
    // tcp, udp or multicast, of RTSP. False with a sentence for the user.
    bool chooseTransport(const QString& name, QString* problem);

private:
    QString scheme() const;
    unsigned short usualPort() const;
    bool parseHttp(const QString& url, QString* problem);
    bool parseRtsp(const QString& url, QString* problem);
};
