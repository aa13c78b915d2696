// One media section of a session description, as a receiver needs it.
#pragma once

#include <KepNuvikaUtil/SDP.h>

#include <QtNetwork/QHostAddress>

#include <vector>

struct MediaDescription {
    QString kind; // "video", "audio", ...
    QString encoding; // "H264/90000"; empty when unknown
    QString fmtp; // the format's parameters
    QHostAddress address; // null when the description has none
    unsigned short rtpPort = 0;
    unsigned short rtcpPort = 0;
    int payloadType = 0;
    unsigned int clockRate = 90000; // never 0

    QString shown() const;

    // The sections that RTP carries; one sentence to *problem for each that is left out.
    static std::vector<MediaDescription> of(const SDP& sdp, QStringList* problems);
};
