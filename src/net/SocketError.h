#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QString>

/// The codes that the sockets report, and their texts.
///
/// Codes are Winsock's on every platform (NuvikaError has their names), in
/// `error(int)` signals as in the last error. Threads: any; the last error belongs to the calling thread.
class KEPNUVIKAUTIL_EXPORT SocketError
{
public:
    /// The system's text for a code: one line, "Success" for 0, and "Unknown" (with a warning in the log) for
    /// a code that the system does not know.
    static QString format(int errorCode);
    /// The text of the calling thread's last error.
    static QString formatLast();
    /// The code of the calling thread's last failed socket call.
    static int getLast();
};
