#include <KepNuvikaUtil/BufferSocketBase.h>

#include "core/Log_p.h"
#include "msg/BufferSocketCrypto_p.h"
#include "msg/CommandExtractor_p.h"
#include "msg/Frame_p.h"

#include <QtCore/QtEndian>

#include <optional>
#include <utility>

namespace
{
constexpr int kMessageTooLong = 10040;
constexpr int kSideInputLimit = 1 << 20; // bytes that wait for a handler; more stay in the system

NuvikaTcpSocket::LOAD_PROFILE profileOf(int loadProfile)
{
    return loadProfile == NuvikaTcpSocket::eLight || loadProfile == NuvikaTcpSocket::eHeavy
        ? static_cast<NuvikaTcpSocket::LOAD_PROFILE>(loadProfile)
        : NuvikaTcpSocket::eMedium;
}
} // namespace

// Outlives the socket when a handler deletes it, and its storage when a handler closes it.
struct BufferSocketBase::Delivery {
    bool bGone = false; // the socket has been destroyed
    CommandExtractor::Storage pKept; // what the handler on the stack reads
    QByteArray sideInput; // received while a handler ran
    bool bStalled = false; // by us, because that became too much
    std::optional<int> end; // the connection's end meanwhile: an error code, 0 for none
};

BufferSocketBase::BufferSocketBase(bool bEncrypted, QObject* parent)
    : QObject(parent), m_pExtractor(std::make_unique<CommandExtractor>()), m_bEncrypted(bEncrypted)
{
    connectSocket();
}

BufferSocketBase::BufferSocketBase(bool bEncrypted, int loadProfile, QObject* parent)
    : QObject(parent), m_pExtractor(std::make_unique<CommandExtractor>()),
      m_socket(profileOf(loadProfile), profileOf(loadProfile)), m_bEncrypted(bEncrypted)
{
    connectSocket();
}

BufferSocketBase::~BufferSocketBase()
{
    clearInput();
    if (m_pDelivery != nullptr)
        m_pDelivery->bGone = true;
}

void BufferSocketBase::connectSocket()
{
    connect(&m_socket, &NuvikaTcpSocket::dataReceived, this, &BufferSocketBase::dataReceived);
    connect(&m_socket, &NuvikaTcpSocket::connected, this, &BufferSocketBase::connected);
    connect(&m_socket, &NuvikaTcpSocket::disconnected, this, &BufferSocketBase::slotDisconnected);
    connect(&m_socket, &NuvikaTcpSocket::error, this, &BufferSocketBase::slotError);
}

// --- receiving -------------------------------------------------------------------------------------------

void BufferSocketBase::clearInput()
{
    CommandExtractor::Storage storage = m_pExtractor->clear();
    if (m_pDelivery == nullptr)
        return;
    if (storage)
        m_pDelivery->pKept = std::move(storage);
    m_pDelivery->sideInput.clear();
    m_pDelivery->end.reset();
}

void BufferSocketBase::dataReceived(const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    if (m_pDelivery == nullptr) {
        takeInput(data, size);
        return;
    }
    m_pDelivery->sideInput.append(data, size);
    if (m_pDelivery->sideInput.size() > kSideInputLimit) {
        m_pDelivery->bStalled = true;
        m_socket.stallRecv();
    }
}

void BufferSocketBase::takeInput(const char* data, int size)
{
    Delivery delivery;
    m_pDelivery = &delivery;
    QByteArray side;
    while (size > 0) {
        if (!m_pExtractor->feed(data, size)) {
            NUVIKA_WARNING(lcMsg,
                "BufferSocketBase::dataReceived(): Received tcp data token too long, aborting connection");
            m_pDelivery = nullptr;
            clearInput();
            m_socket.errorClose(kMessageTooLong);
            emit error(kMessageTooLong);
            return;
        }
        if (!deliverCommands(delivery))
            return;
        if (std::exchange(delivery.bStalled, false) && !m_bStalled)
            m_socket.resumeRecv();
        side = std::exchange(delivery.sideInput, QByteArray());
        data = side.constData();
        size = side.size();
    }
    m_pDelivery = nullptr;
    deliverEnd(delivery);
}

// False when a handler has destroyed the socket.
bool BufferSocketBase::deliverCommands(Delivery& delivery)
{
    CommandExtractor::Command command{};
    while (m_pExtractor->getFirstCommand(&command)) {
        if (command.bEncrypted) {
            QByteArray plain;
            decrypt(command.pData, command.nSize, plain);
            emit incomingBuffer(plain.constData(), plain.size(), NuvikaTcpSocket::QueuedConnNotAllowed());
        } else {
            emit incomingBuffer(command.pData, command.nSize, NuvikaTcpSocket::QueuedConnNotAllowed());
        }
        if (delivery.bGone)
            return false;
        delivery.pKept.reset();
        m_pExtractor->removeFirstCommand();
    }
    return true;
}

// The last statement of its caller: a handler may delete the socket.
void BufferSocketBase::deliverEnd(Delivery& delivery)
{
    if (!delivery.end)
        return;
    if (*delivery.end == 0)
        slotDisconnected();
    else
        slotError(*delivery.end);
}

void BufferSocketBase::slotDisconnected()
{
    if (m_pDelivery != nullptr) {
        m_pDelivery->end = 0; // the messages before it come first
        return;
    }
    clearInput();
    emit disconnected();
}

void BufferSocketBase::slotError(int errorCode)
{
    if (m_pDelivery != nullptr) {
        m_pDelivery->end = errorCode;
        return;
    }
    clearInput();
    emit error(errorCode);
}

// --- crypto ----------------------------------------------------------------------------------------------

void BufferSocketBase::encrypt(const char* data, int size, QByteArray& token)
{
    if (!m_pEncrypter)
        m_pEncrypter = std::make_unique<BufferSocketEncrypter>();
    token = m_pEncrypter->encrypt(data, size);
}

void BufferSocketBase::decrypt(const char* token, int size, QByteArray& plain)
{
    if (!m_pDecrypter)
        m_pDecrypter = std::make_unique<BufferSocketDecrypter>();
    plain = m_pDecrypter->decrypt(token, size);
}

BufferSocketBase::Frame BufferSocketBase::frameOf(const char* data, int size)
{
    Frame frame{{}, {}, data, size};
    if (m_bEncrypted) {
        encrypt(data, size, frame.token);
        frame.pPayload = frame.token.constData();
        frame.nPayload = frame.token.size();
    }
    qToBigEndian<quint32>(m_bEncrypted ? magicKeyCrypted() : magicKeyUncrypted(), frame.head.data());
    qToBigEndian<quint32>(static_cast<quint32>(frame.nPayload), frame.head.data() + 4);
    return frame;
}

unsigned int BufferSocketBase::magicKeyUncrypted() { return CommandExtractor::kMagicUncrypted; }
unsigned int BufferSocketBase::magicKeyCrypted() { return CommandExtractor::kMagicCrypted; }

// --- the socket ------------------------------------------------------------------------------------------

void BufferSocketBase::close()
{
    clearInput();
    m_socket.close();
}

void BufferSocketBase::connectToHost(const QHostAddress& address, unsigned short port)
{
    m_socket.connectToHost(address, port);
}

void BufferSocketBase::connectToHost(const QString& host, unsigned short port)
{
    m_socket.connectToHost(host, port);
}

void BufferSocketBase::setSocketDescriptor(int socket) { m_socket.setSocketDescriptor(socket); }
QHostAddress BufferSocketBase::localAddress() { return m_socket.localAddress(); }
unsigned short BufferSocketBase::localPort() const { return m_socket.localPort(); }
QHostAddress BufferSocketBase::peerAddress() { return m_socket.peerAddress(); }
unsigned short BufferSocketBase::peerPort() const { return m_socket.peerPort(); }
QString BufferSocketBase::errorString() { return m_socket.errorString(); }

void BufferSocketBase::stallRecv()
{
    m_bStalled = true;
    m_socket.stallRecv();
}

void BufferSocketBase::resumeRecv()
{
    m_bStalled = false;
    m_socket.resumeRecv();
}

void BufferSocketBase::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    m_socket.setSystemBuffers(buffers);
}
