// nuvika rtsp: what an RTSP camera offers and sends.
#pragma once

#include <QtCore/QStringList>

int runRtsp(const QStringList& arguments);
