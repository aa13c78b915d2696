// Private: the events by which the I/O engine reports to its socket. They are delivered at once.
#pragma once

#include <QtCore/QEvent>

namespace NuvikaTcpSocketEventType
{
constexpr QEvent::Type kError = static_cast<QEvent::Type>(1001);
constexpr QEvent::Type kDisconnected = static_cast<QEvent::Type>(1002);
constexpr QEvent::Type kDataReceived = static_cast<QEvent::Type>(1003);
constexpr QEvent::Type kCanSend = static_cast<QEvent::Type>(1004);
constexpr QEvent::Type kAllSent = static_cast<QEvent::Type>(1006);
} // namespace NuvikaTcpSocketEventType

class NuvikaTcpSocketErrorEvent : public QEvent
{
public:
    explicit NuvikaTcpSocketErrorEvent(int nError)
        : QEvent(NuvikaTcpSocketEventType::kError), m_nError(nError)
    {
    }
    int errorCode() const { return m_nError; }

private:
    int m_nError;
};

class NuvikaTcpSocketDisconnectedEvent : public QEvent
{
public:
    NuvikaTcpSocketDisconnectedEvent() : QEvent(NuvikaTcpSocketEventType::kDisconnected) { }
};

class NuvikaTcpSocketDataReceivedEvent : public QEvent
{
public:
    NuvikaTcpSocketDataReceivedEvent(const char* pData, int nSize)
        : QEvent(NuvikaTcpSocketEventType::kDataReceived), m_pData(pData), m_nSize(nSize)
    {
    }
    const char* data() const { return m_pData; }
    int size() const { return m_nSize; }

private:
    const char* m_pData;
    int m_nSize;
};

class NuvikaTcpSocketCanSendEvent : public QEvent
{
public:
    NuvikaTcpSocketCanSendEvent() : QEvent(NuvikaTcpSocketEventType::kCanSend) { }
};

// Everything that was handed over has left, and the owner had asked to be told.
class NuvikaTcpSocketAllSentEvent : public QEvent
{
public:
    NuvikaTcpSocketAllSentEvent() : QEvent(NuvikaTcpSocketEventType::kAllSent) { }
};
