// Private: URLs of RTSP as users, descriptions and servers write them.
#pragma once

#include <QtCore/QString>

namespace Nuvika
{
struct RtspUrl {
    bool bTls = false;
    QString host; // an IPv6 address without brackets
    quint16 nPort = 0;
    QString path; // with its query, as written; begins with '/' or '?', or is empty
    QString user; // decoded
    QString password;
    QString problem; // why it is none, in words; empty: it is one

    // "rtsp://[user:password@]host[:port][/path][?query]", or rtsps.
    static RtspUrl parse(const QString& text);
    // Without credentials, the port where it is not the scheme's.
    QString toString() const;
    QString authority() const; // host and port as a request line has them

    // What tracks are relative to: what the server says (Content-Base, Content-Location; either may be empty)
    // in the place of the URL that was asked for, completed where it has no scheme or no host.
    QString base(const QString& contentBase, const QString& contentLocation) const;
    // Where a redirect leads; relative ones stay at the host.
    RtspUrl redirected(const QString& location) const;
};

// What a request line can hold: blanks, control characters and those beyond ASCII are percent-encoded.
QString encodedUrl(const QString& url);

// Whether two URLs name the same track: one may be relative, have another host, or lack what leads to it.
bool mayBeSameTrack(const QString& trackUrl, const QString& other);
} // namespace Nuvika
