#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

class QDebug;

/// Who sends, as the description says (RFC 8866, section 6.7).
enum sdp_direction_t { eSdpSendRecv, eSdpSendOnly, eSdpRecvOnly, eSdpInactive };

/// A line "type=value", without blanks at its end.
struct SdpLine {
    char type = 0;
    QString value;
};

/// A parameter of an "fmtp" attribute. A key without value has an empty one.
struct SdpParameter {
    QString key; ///< in lower case
    QString value; ///< as written, with all its '='
};

/// The address of a "c" line.
struct SdpConnection {
    QString address; ///< a number or a name; empty: none
    int ttl = -1; ///< of an IPv4 group; -1: none
    bool bMulticast = false;
};

/// One format of a media section: what a payload type means.
struct SdpFormat {
    QString name; ///< as in the "m" line
    int payloadType = -1; ///< 0 to 127; -1: the name is no payload type
    QString encoding; ///< in upper case; empty: nobody says
    quint32 clockRate = 0; ///< ticks a second: where only the encoding is known the usual one; 0: nobody says
    int channels = 1;
    QString fmtp; ///< the parameters as written
    QVector<SdpParameter> parameters; ///< the same, in their order
    int width = 0; ///< in pixels; 0: nobody says
    int height = 0;

    /// Of the first of that key, which is in lower case.
    QString parameter(const QString& key) const
    {
        for (const SdpParameter& each : parameters)
            if (each.key == key)
                return each.value;
        return QString();
    }
};

/// One media section.
struct KEPNUVIKAUTIL_EXPORT SdpMedia {
    QString type; ///< "video", "audio", "application", or whatever was written
    int port = 0;
    QString transport; ///< "RTP/AVP"
    QVector<SdpFormat> formats;
    QString control; ///< as written; SdpDescription::trackUrl() makes a URL of it
    sdp_direction_t direction = eSdpSendRecv;
    SdpConnection connection; ///< its own or the session's
    double frameRate = 0; ///< pictures a second, as declared; 0: nobody says
    QVector<SdpLine> lines; ///< all of them, the "m" line first

    /// Of the first attribute of that name, in any case; empty when it has no value or there is none.
    QString attribute(const QString& name) const;
    /// Null when the section does not have that payload type. The pointer holds until formats change.
    const SdpFormat* format(int payloadType) const;
};

/// A session description as a client reads it (RFC 8866): every line in its order, and what is needed to set
/// up tracks. It rejects nothing: lines may be missing, stand anywhere and be of odd forms; what is no
/// "type=value" is skipped. SDP edits descriptions, and keeps to the order rules instead.
///
/// A payload type means what its "rtpmap" says, else what RFC 3551 (table 4 and 5) says.
///
/// Bounds: the first 1 MiB of the text, 4,096 lines, 32 media sections, in each 128 formats of 256
/// parameters; bCut tells when there was more. Time is linear in the text. Threads: a plain value.
struct KEPNUVIKAUTIL_EXPORT SdpDescription {
    static constexpr int kMaxSize = 1 << 20;
    static constexpr int kMaxLines = 4096;
    static constexpr int kMaxMedia = 32;
    static constexpr int kMaxFormats = 128;
    static constexpr int kMaxParameters = 256;

    QVector<SdpLine> lines; ///< of the session
    QVector<SdpMedia> media;
    QString control; ///< of the session, as written
    sdp_direction_t direction = eSdpSendRecv; ///< of sections that name none
    SdpConnection connection;
    bool bCut = false; ///< there was more than the bounds

    /// Reads UTF-8 with lines that end in any way.
    static SdpDescription read(const QByteArray& text);

    QString attribute(const QString& name) const;
    /// Whether a client sets up that section: not what it is to send itself, unless all sections say so.
    bool isForClient(int index) const;

    /// The URL of the whole session, and of a track, below the URL \a base that the server named
    /// (Content-Base, Content-Location, or that of the request). An absolute control replaces it; "*" and
    /// none is it; else the control is appended, behind a slash unless either brings one or it begins with
    /// '?'.
    QString sessionUrl(const QString& base) const;
    QString trackUrl(int index, const QString& base) const;
};

/// For logs, without keys and passwords as SDP's; the lines only one by one.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SdpLine& line);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SdpParameter& parameter);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SdpConnection& connection);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SdpFormat& format);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SdpMedia& media);
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SdpDescription& description);
