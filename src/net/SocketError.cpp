#include <KepNuvikaUtil/SocketError.h>

#include "core/Log_p.h"
#include "platform/ErrorCodes_p.h"

using namespace Nuvika;

QString SocketError::format(int errorCode)
{
    const std::string text = ErrorCodes::text(errorCode);
    if (!text.empty())
        return QString::fromStdString(text);
    NUVIKA_WARNING(lcNet, "Failed to get error message for error %d : %d", errorCode, getLast());
    return QStringLiteral("Unknown");
}

QString SocketError::formatLast() { return format(getLast()); }

int SocketError::getLast() { return ErrorCodes::lastError(); }
