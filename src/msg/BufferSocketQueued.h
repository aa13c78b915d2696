#pragma once

#include <KepNuvikaUtil/BufferSocketBase.h>

#include <memory>

namespace Nuvika
{
class ChunkQueue;
}

/// A message socket that never refuses a message while it is connected, unless setSendLimit() asks for it:
/// what the connection cannot take now waits in memory. Messages keep their order. What still waits when the
/// connection ends is lost; the receiver may have got a message in part, which it never sees.
class KEPNUVIKAUTIL_EXPORT BufferSocketQueued : public BufferSocketBase
{
    Q_OBJECT
public:
    explicit BufferSocketQueued(bool bEncrypted, QObject* parent = nullptr);
    BufferSocketQueued(bool bEncrypted, int loadProfile, QObject* parent = nullptr);
    ~BufferSocketQueued() override;

    /// False only when not connected, for a negative size and at the send limit. A message of 104857600 bytes
    /// or more would be refused by its receiver.
    bool sendBuffer(const char* data, int size);

    void close() override;

    /// Bytes of messages, as they travel, that were not yet given to the system; 0 when not connected.
    qint64 bytesToSend() const;
    /// While so many bytes wait, sendBuffer() refuses further ones: false, and nothing is taken; sigCanSend()
    /// comes when fewer do. A message that was taken is taken whole, also past the limit. 0, the default:
    /// none.
    void setSendLimit(qint64 bytes);
    /// What tells that refusal from the others. canSend() is false as well.
    bool isSendLimitReached() const;
    /// Whether what is sent now waits for nothing; for senders of endless data, with sigCanSend().
    bool canSend() const;

    /// A parent alone is no flag: the flag stands before it.
    template <class Object>
    explicit BufferSocketQueued(Object* parent, QObject* = nullptr) = delete;

signals:
    /// canSend() is true again.
    void sigCanSend();

protected slots:
    void slotDisconnected() override;
    void slotError(int errorCode) override;

private slots:
    void slotCanSend();

private:
    void connectSending();
    void watchSendLimit();

    std::unique_ptr<Nuvika::ChunkQueue> m_pQueue;
    qint64 m_nSendLimit = 0;
};
