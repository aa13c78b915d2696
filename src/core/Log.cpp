#include "core/Log_p.h"

namespace Nuvika
{
Q_LOGGING_CATEGORY(lcCore, "nuvika.core")
Q_LOGGING_CATEGORY(lcNet, "nuvika.net")
Q_LOGGING_CATEGORY(lcMedia, "nuvika.media")
Q_LOGGING_CATEGORY(lcMsg, "nuvika.msg")
Q_LOGGING_CATEGORY(lcHttp, "nuvika.http")
Q_LOGGING_CATEGORY(lcRtsp, "nuvika.rtsp")
} // namespace Nuvika
