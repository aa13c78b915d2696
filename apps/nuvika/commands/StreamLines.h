// What nuvika rtp and nuvika rtsp print of a stream: a line each second, and one at the end.
#pragma once

#include "cameras/StreamRecord.h"

#include <QtCore/QString>

// Ends without a line feed: each command adds what it knows.
QByteArray secondLine(int second, const QString& stream, const StreamRecord& record);
QByteArray summaryLine(const QString& stream, const StreamRecord& record);
