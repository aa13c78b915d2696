#pragma once

#include <KepNuvikaUtil/BufferSocketBase.h>

/// A message socket that refuses what its bounded send queue does not take: wait for sigCanSend() then.
class KEPNUVIKAUTIL_EXPORT BufferSocketFixedFifo : public BufferSocketBase
{
    Q_OBJECT
public:
    explicit BufferSocketFixedFifo(bool bEncrypted, QObject* parent = nullptr);
    BufferSocketFixedFifo(bool bEncrypted, int loadProfile, QObject* parent = nullptr);

    /// Takes the whole message or nothing; copied once. False also when not connected and for a negative
    /// size. A message of 104857600 bytes or more would be refused by its receiver.
    bool sendBuffer(const char* data, int size);
    bool canSend() const;

    /// Bytes of messages, as they travel, that were not yet given to the system; 0 when not connected.
    qint64 bytesToSend() const;

    /// A parent alone is no flag: the flag stands before it.
    template <class Object>
    explicit BufferSocketFixedFifo(Object* parent, QObject* = nullptr) = delete;

signals:
    /// The queue has room again.
    void sigCanSend();
};
