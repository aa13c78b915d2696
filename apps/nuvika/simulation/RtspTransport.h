// The Transport field of a SETUP (RFC 2326, section 12.39), as far as a camera needs it.
#pragma once

#include <QtCore/QString>

#include <optional>

struct RtspTransport {
    bool bInterleaved = false;
    int nRtp = 0; // channels, or ports of the viewer
    int nRtcp = 0;

    // The first that can be served: unicast over UDP, or interleaved.
    static std::optional<RtspTransport> choose(const QString& field);
};
