/// \file
/// Resolving host names without blocking any Qt thread.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtNetwork/QHostInfo>

namespace NuvikaUtil
{
/// Looks \a hostName up and later calls \a slot of \a receiver (`SLOT(name(QHostInfo))`) on the receiver's
/// own thread. Returns the lookup id, which the answer's lookupId() repeats, or 0 (and nothing follows)
/// before KepNuvikaUtilInit() and after KepNuvikaUtilCleanup().
///
/// The answer's error() is QHostInfo::NoError or QHostInfo::HostNotFound; addresses() keeps the system's
/// order. Requests for one name that meet share one system lookup; answers are kept for 60 seconds, failures
/// are not. Names are compared as they stand. A receiver that is deleted gets no answer.
/// Threads: any; a handler of log records may call it as well.
KEPNUVIKAUTIL_EXPORT int lookupHost(const QString& hostName, QObject* receiver, const char* slot);
} // namespace NuvikaUtil
