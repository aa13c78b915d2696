// What went wrong with an RTSP camera, and what to try next.
#pragma once

#include "cameras/RtspStreams.h"

#include <QtCore/QStringList>

// How far a session came.
enum class RtspStage { Connecting, Connected, Answered, Playing };

struct RtspAdvice {
    int exitCode;
    QString next; // what to try
};
// For a code of RtspClient::error().
RtspAdvice adviceFor(int code, RtspStage stage, const Target& camera, RtspOptions::Transport transport);

// What is not as it should be with a session that played so many seconds: a sentence each, with what to try.
QStringList findingsOf(const RtspStreams& streams, double seconds);
