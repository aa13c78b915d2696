// Private: what a session waits for.
#pragma once

#include "core/Deadlines_p.h"

namespace Nuvika
{
struct RtspWaits {
    enum Kind {
        eConnect,
        eAnswer,
        eFirstPacket,
        eSilence,
        eKeepAlive,
        eReport,
        eStatistics,
        eReorder,
        eTeardown,
        eEnd,
        eCount
    };
};
using RtspDeadlines = Deadlines<RtspWaits>;
} // namespace Nuvika
