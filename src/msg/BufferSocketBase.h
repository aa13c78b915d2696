#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>

#include <memory>

class BufferSocketDecrypter;
class BufferSocketEncrypter;
class CommandExtractor;

/// Receives whole messages over TCP, plain or encrypted, and hands each out by incomingBuffer(). The
/// subclasses add the sending: BufferSocketFixedFifo refuses what does not fit, BufferSocketQueued keeps it.
///
/// A message travels as one frame: four bytes "FDTC" (plain) or "GEUD" (encrypted), the payload's length as a
/// big-endian 32-bit number below 104857600, and the payload. Both kinds are understood, whatever this side
/// sends. A frame is seen only when a byte behind its 8-byte head has come; so an empty message waits for the
/// next one.
///
/// What the encryption is worth: its key is the same in every copy of the library. It keeps messages from a
/// casual reader of the wire; against anybody else, use TLS.
///
/// Threads: the owner thread, which needs an event loop.
///
/// Lifetime: a handler of any signal may close, delete or reuse the socket, and send. Bytes in a signal live
/// until the handlers have returned. While a handler runs an event loop of its own, what arrives waits, the
/// connection's end included.
///
/// Errors: error(int) with a code of SocketError; 10040 when more than 200 MiB would have to be held. What is
/// no frame is discarded with a warning, and the connection kept. An encrypted message that cannot be read is
/// handed out as an empty one, behind a warning.
class KEPNUVIKAUTIL_EXPORT BufferSocketBase : public QObject
{
    Q_OBJECT
public:
    /// \a bEncrypted: whether this side sends encrypted messages.
    explicit BufferSocketBase(bool bEncrypted, QObject* parent = nullptr);
    /// \a loadProfile: a NuvikaTcpSocket::LOAD_PROFILE, for both directions.
    BufferSocketBase(bool bEncrypted, int loadProfile, QObject* parent = nullptr);
    ~BufferSocketBase() override;

    /// As NuvikaTcpSocket's.
    void connectToHost(const QHostAddress& address, unsigned short port);
    void connectToHost(const QString& host, unsigned short port);
    void setSocketDescriptor(int socket);
    QHostAddress localAddress();
    unsigned short localPort() const;
    QHostAddress peerAddress();
    unsigned short peerPort() const;
    QString errorString();
    /// Messages that have been received already are still handed out.
    void stallRecv();
    void resumeRecv();

    /// Discards what was received and what waits to be sent. Emits nothing.
    virtual void close();
    /// For connections that begin from now on, as NuvikaTcpSocket's: without eTuned, some 1.3 MB/s at
    /// 50 ms.
    void setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers);
    /// As NuvikaTcpSocket's.
    void setKeepAlive(bool on, int idleSeconds = 60, int intervalSeconds = 10, int probes = 6);
    void setNoDelay(bool on);
    void setConnectTimeLimit(int ms);

signals:
    void incomingBuffer(const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed);
    void connected();
    void disconnected();
    void error(int errorCode);

protected slots:
    virtual void slotDisconnected();
    virtual void slotError(int errorCode);

protected:
    /// The token of a message, and the message of a token; empty behind a record when there is none.
    void encrypt(const char* data, int size, QByteArray& token);
    void decrypt(const char* token, int size, QByteArray& plain);
    static unsigned int magicKeyUncrypted();
    static unsigned int magicKeyCrypted();
    struct Frame;
    /// A message as it travels from this side.
    Frame frameOf(const char* data, int size);

private slots:
    void dataReceived(const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed);

private:
    struct Delivery; // the one on the stack, while a handler of incomingBuffer() runs
    class Input; // what arrives while it runs

    void connectSocket();
    int readInput(const char* data, int size);
    bool deliverCommands(Delivery& delivery);
    void readEnd(int code);
    void refuseInput();
    void clearInput();

    std::unique_ptr<CommandExtractor> m_pExtractor;

protected:
    NuvikaTcpSocket m_socket;
    const bool m_bEncrypted;

private:
    std::unique_ptr<BufferSocketEncrypter> m_pEncrypter; // made when first needed
    std::unique_ptr<BufferSocketDecrypter> m_pDecrypter;
    std::unique_ptr<Input> m_pInput;
};
