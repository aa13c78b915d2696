#include <KepNuvikaUtil/BufferSocketBase.h>

#include "core/Log_p.h"
#include "msg/BufferSocketCrypto_p.h"
#include "msg/CommandExtractor_p.h"
#include "msg/Frame_p.h"
#include "net/PendingInput_p.h"

#include <QtCore/QtEndian>

#include <utility>

using namespace Nuvika;

namespace
{
constexpr int kMessageTooLong = 10040;

NuvikaTcpSocket::LOAD_PROFILE profileOf(int loadProfile)
{
    return loadProfile == NuvikaTcpSocket::eLight || loadProfile == NuvikaTcpSocket::eHeavy
        ? static_cast<NuvikaTcpSocket::LOAD_PROFILE>(loadProfile)
        : NuvikaTcpSocket::eMedium;
}
} // namespace

// Outlives the socket when a handler deletes it, and its storage when a handler closes it.
struct BufferSocketBase::Delivery {
    bool bOver = false; // the socket has been closed or destroyed
    CommandExtractor::Storage pKept; // what the handler on the stack reads
};

class BufferSocketBase::Input final : public InputReader
{
public:
    explicit Input(BufferSocketBase& socket) : m_socket(socket) { }

    int readInput(const char* data, int size) override { return m_socket.readInput(data, size); }
    void readEnd(int code) override { m_socket.readEnd(code); }
    void stallSource(bool bStall) override
    {
        if (bStall)
            m_socket.m_socket.stallRecv();
        else
            m_socket.m_socket.resumeRecv();
    }

    PendingInput pending{*this};
    Delivery* pDelivery = nullptr;

private:
    BufferSocketBase& m_socket;
};

BufferSocketBase::BufferSocketBase(bool bEncrypted, QObject* parent)
    : QObject(parent), m_pExtractor(std::make_unique<CommandExtractor>()), m_bEncrypted(bEncrypted),
      m_pInput(std::make_unique<Input>(*this))
{
    connectSocket();
}

BufferSocketBase::BufferSocketBase(bool bEncrypted, int loadProfile, QObject* parent)
    : QObject(parent), m_pExtractor(std::make_unique<CommandExtractor>()),
      m_socket(profileOf(loadProfile), profileOf(loadProfile)), m_bEncrypted(bEncrypted),
      m_pInput(std::make_unique<Input>(*this))
{
    connectSocket();
}

BufferSocketBase::~BufferSocketBase() { clearInput(); }

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
    m_pInput->pending.reset();
    if (Delivery* delivery = std::exchange(m_pInput->pDelivery, nullptr)) {
        delivery->bOver = true;
        delivery->pKept = std::move(storage);
    }
}

void BufferSocketBase::dataReceived(const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed)
{
    m_pInput->pending.received(data, size);
}

int BufferSocketBase::readInput(const char* data, int size)
{
    Delivery delivery;
    m_pInput->pDelivery = &delivery;
    if (m_pExtractor->feed(data, size) && !deliverCommands(delivery))
        return InputReader::kOver;
    if (m_pExtractor->isOverfull()) {
        refuseInput();
        return InputReader::kOver;
    }
    m_pInput->pDelivery = nullptr;
    return size;
}

// False when a handler has closed or destroyed the socket.
bool BufferSocketBase::deliverCommands(Delivery& delivery)
{
    CommandExtractor::Command command{};
    QByteArray plain; // its memory serves all of a receive
    while (m_pExtractor->getFirstCommand(&command)) {
        if (command.bEncrypted) {
            decrypt(command.pData, command.nSize, plain);
            command.pData = plain.constData();
            command.nSize = plain.size();
        }
        emit incomingBuffer(command.pData, command.nSize, NuvikaTcpSocket::QueuedConnNotAllowed());
        if (delivery.bOver)
            return false;
        m_pExtractor->removeFirstCommand();
    }
    return true;
}

void BufferSocketBase::refuseInput()
{
    NUVIKA_WARNING(
        lcMsg, "BufferSocketBase::dataReceived(): Received tcp data token too long, aborting connection");
    clearInput();
    m_socket.errorClose(kMessageTooLong);
    emit error(kMessageTooLong);
}

void BufferSocketBase::slotDisconnected() { m_pInput->pending.ended(0); }

void BufferSocketBase::slotError(int errorCode) { m_pInput->pending.ended(errorCode); }

// Behind the messages before it.
void BufferSocketBase::readEnd(int code)
{
    clearInput();
    if (code == 0)
        emit disconnected();
    else
        emit error(code);
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
    m_pDecrypter->decrypt(token, size, &plain);
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

void BufferSocketBase::stallRecv() { m_pInput->pending.setStalled(PendingInput::eByOwner, true); }

void BufferSocketBase::resumeRecv() { m_pInput->pending.setStalled(PendingInput::eByOwner, false); }

void BufferSocketBase::setSystemBuffers(NuvikaTcpSocket::SYSTEM_BUFFERS buffers)
{
    m_socket.setSystemBuffers(buffers);
}

void BufferSocketBase::setKeepAlive(bool on, int idleSeconds, int intervalSeconds, int probes)
{
    m_socket.setKeepAlive(on, idleSeconds, intervalSeconds, probes);
}

void BufferSocketBase::setNoDelay(bool on) { m_socket.setNoDelay(on); }

void BufferSocketBase::setConnectTimeLimit(int ms) { m_socket.setConnectTimeLimit(ms); }
