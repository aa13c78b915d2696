#pragma once

#include <KepNuvikaUtil/BufferSocketBase.h>

#include <memory>

namespace Nuvika
{
class ChunkQueue;
}

/// A message socket that never refuses a message while it is connected: what the connection cannot take now
/// waits in memory, without a limit. Messages keep their order. What still waits when the connection ends is
/// lost; the receiver may have got a message in part, which it never sees.
class KEPNUVIKAUTIL_EXPORT BufferSocketQueued : public BufferSocketBase
{
    Q_OBJECT
public:
    explicit BufferSocketQueued(bool bEncrypted, QObject* parent = nullptr);
    BufferSocketQueued(bool bEncrypted, int loadProfile, QObject* parent = nullptr);
    ~BufferSocketQueued() override;

    /// False only when not connected, and for a negative size. A message of 104857600 bytes or more would be
    /// refused by its receiver.
    bool sendBuffer(const char* data, int size);

    void close() override;

    /// A parent alone is no flag: the flag stands before it.
    template <class Object>
    explicit BufferSocketQueued(Object* parent, QObject* = nullptr) = delete;

protected slots:
    void slotDisconnected() override;
    void slotError(int errorCode) override;

private slots:
    void slotCanSend();

private:
    void connectSending();

    std::unique_ptr<Nuvika::ChunkQueue> m_pQueue;
};
