// Private: the fields of RTSP that have a grammar of their own, read as servers really write them.
#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <optional>

namespace Nuvika
{
struct PortPair {
    int nFirst = -1; // -1: not said
    int nSecond = -1; // the one behind it where only one is said
    bool isSaid() const { return nFirst >= 0; }
};

// One transport of a Transport field (RFC 2326, section 12.39).
struct RtspTransportField {
    enum Lower { eUdp, eTcp };
    Lower lower = eUdp;
    bool bMulticast = false;
    PortPair interleaved;
    PortPair clientPort;
    PortPair serverPort;
    PortPair port; // of a group
    QString destination;
    QString source;
    std::optional<quint32> ssrc; // unreadable or 0: not said

    // The first that is named.
    static RtspTransportField parse(const QString& text);
    QString toString() const;
};

// The Session field: an id, and after how many seconds the server forgets it.
struct RtspSessionField {
    static constexpr int kDefaultTimeout = 60;
    QString id;
    int nTimeout = kDefaultTimeout;
    bool bTimeout = false; // it was said
    static RtspSessionField parse(const QString& text);
};

// One track of the RTP-Info field: hints.
struct RtpInfo {
    QString url;
    std::optional<quint16> sequence;
    std::optional<quint32> timestamp;
};
QVector<RtpInfo> parseRtpInfo(const QString& text);

// The methods of a Public or Allow field, in capitals.
QStringList parseMethods(const QString& text);
} // namespace Nuvika
