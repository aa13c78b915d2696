// Private: the detour by which a can-send notification reaches its socket from the event loop.
#pragma once

#include <QtCore/QObject>

class NuvikaTcpSocketAsyncHelper : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
signals:
    void emitCanSend(quint64 sessionId);
};
