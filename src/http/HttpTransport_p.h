// Private: the connection under the HTTP request engine.
#pragma once

#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

namespace Nuvika
{
class ReceivePlacer;

class HttpTransport
{
public:
    virtual ~HttpTransport() = default;
    // Knows where the bytes belong that come next.
    virtual void setPlacer(ReceivePlacer& placer) = 0;
    virtual void connectToHost(const QString& host, unsigned short port) = 0;
    virtual bool sendData(const char* data, int size) = 0;
    virtual void sendEndOfData() = 0;
    // What is sent now waits for nothing.
    virtual bool canSend() const = 0;
    // Asks the owner for one allSent(). False when everything has left already.
    virtual bool notifyWhenAllSent() = 0;
    virtual void close() = 0;
    virtual void stallRecv() = 0;
    virtual void resumeRecv() = 0;
    // Something waits to be received although no answer is awaited: the server has ended the connection.
    virtual bool hasPendingInput() const = 0;
    virtual bool isTls() const = 0;
    // Handed over, and not yet given to the system.
    virtual qint64 bytesToSend() const = 0;
    virtual QHostAddress localAddress() const = 0;
    virtual QHostAddress peerAddress() const = 0;
};
} // namespace Nuvika
