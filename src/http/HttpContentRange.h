#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include <QtCore/QtGlobal>

#include <optional>

class QDebug;

/// What part an answer to a range request holds: its "Content-Range" (RFC 9110, 14.4).
struct KEPNUVIKAUTIL_EXPORT HttpContentRange {
    qint64 first = -1; ///< of the part's bytes; -1 for a 416, which holds none
    qint64 last = -1; ///< included
    qint64 total = -1; ///< bytes of the whole; -1 when the server does not know

    /// Nothing for any status but 206 and 416, for a field that is missing, stands twice, has another unit
    /// than bytes or is not written to the letter, for a part that lies outside of the whole, and for several
    /// parts in one answer (multipart/byteranges).
    static std::optional<HttpContentRange> fromHeader(const HttpResponseHeader& header);
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const HttpContentRange& range);
