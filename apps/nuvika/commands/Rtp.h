// nuvika rtp: receives the streams of a session description; nuvika sdp: shows one as the library reads it.
#pragma once

#include <QtCore/QStringList>

int runRtp(const QStringList& arguments);
int runSdp(const QStringList& arguments);
