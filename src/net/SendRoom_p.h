// Private: for owners that bound what waits behind a TCP socket, in its own queue and in theirs.
#pragma once

#include <QtCore/QtGlobal>

class NuvikaTcpSocket;
class NuvikaTcpSocketQueued;

namespace Nuvika
{
class SendRoom
{
public:
    // One further sigCanSend() comes once fewer bytes wait in the socket's own queue. More have to wait
    // there.
    static void tellBelow(NuvikaTcpSocket& socket, qint64 bytes);
    // As sendData(), whatever the send limit.
    static bool sendPastLimit(NuvikaTcpSocketQueued& socket, const char* data, int size);
};
} // namespace Nuvika
