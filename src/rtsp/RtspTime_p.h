// Private: the clocks of a session.
#pragma once

#include <KepNuvikaUtil/RtpTimeline.h>

#include "platform/Clock_p.h"

namespace Nuvika
{
inline qint64 monotonicUs() { return static_cast<qint64>(Clock::monotonicNs() / 1000); }
inline RtpArrival arrivalNow() { return {monotonicUs(), static_cast<qint64>(Clock::wallClockMs()) * 1000}; }
} // namespace Nuvika
