// Private: the clocks of a session.
#pragma once

#include <KepNuvikaUtil/RtpTimeline.h>

#include "core/ThreadAlarm_p.h"

namespace Nuvika
{
inline RtpArrival arrivalNow() { return {monotonicUs(), static_cast<qint64>(Clock::wallClockMs()) * 1000}; }
} // namespace Nuvika
