#include "RtspViewer.h"

#include <array>

namespace
{
constexpr int kSendQueue = 256 << 10; // of a viewer that reads slowly
} // namespace

// --- RtspViewer ----------------------------------------------------------------------------------------

RtspViewer::RtspViewer(int descriptor, Handler handler, QObject* parent)
    : QObject(parent), m_handler(std::move(handler)),
      m_socket(NuvikaTcpSocket::eMedium, NuvikaTcpSocket::eMedium, kSendQueue, true, nullptr)
{
    m_sinceInput.start();
    connect(&m_socket, &NuvikaTcpSocket::dataReceived, this, &RtspViewer::received);
    connect(&m_socket, &NuvikaTcpSocket::disconnected, this, &QObject::deleteLater);
    connect(&m_socket, &NuvikaTcpSocket::error, this, &QObject::deleteLater);
    connect(&m_socket, &NuvikaTcpSocket::sigCanSend, this, [this] {
        m_socket.resumeRecv();
        serve();
    });
    m_socket.setSocketDescriptor(descriptor);
}

void RtspViewer::received(const char* data, int size)
{
    if (m_bEnding)
        return;
    m_sinceInput.start();
    m_reader.feed(data, size);
    serve();
}

void RtspViewer::serve()
{
    while (!m_bEnding) {
        if (!m_socket.canSend()) {
            m_socket.stallRecv();
            return;
        }
        const RtspRequestReader::Event event = m_reader.next();
        if (event == RtspRequestReader::eNeedMore)
            return;
        const bool bRead = event == RtspRequestReader::eRequest;
        const QByteArray answer
            = bRead ? m_handler(*this, m_reader.request()) : QByteArray("RTSP/1.0 400 Bad Request\r\n\r\n");
        m_socket.sendData(answer.constData(), answer.size());
        if (!bRead)
            end();
    }
}

bool RtspViewer::send(const std::vector<KepNuvikaUtil::BUFFER>& pieces)
{
    return m_socket.sendData(pieces.data(), static_cast<int>(pieces.size()));
}

void RtspViewer::end()
{
    m_bEnding = true;
    m_socket.sendEndOfData();
}

// --- InterleavedSink -----------------------------------------------------------------------------------

InterleavedSink::InterleavedSink(RtspViewer& viewer, int rtpChannel, int rtcpChannel)
    : m_viewer(&viewer), m_nRtpChannel(rtpChannel), m_nRtcpChannel(rtcpChannel)
{
}

int InterleavedSink::sendPackets(const KepNuvikaUtil::BUFFER* packets, int count)
{
    return send(m_nRtpChannel, packets, count) ? count : 0;
}

void InterleavedSink::sendReport(const KepNuvikaUtil::BUFFER& report) { send(m_nRtcpChannel, &report, 1); }

// In one piece: a picture is taken whole or was not begun.
bool InterleavedSink::send(int channel, const KepNuvikaUtil::BUFFER* packets, int count)
{
    std::vector<std::array<char, 4>> heads(static_cast<std::size_t>(count));
    std::vector<KepNuvikaUtil::BUFFER> pieces;
    pieces.reserve(2 * heads.size());
    for (int i = 0; i < count; ++i) {
        auto& head = heads[static_cast<std::size_t>(i)];
        head = {'$', static_cast<char>(channel), static_cast<char>(packets[i].nLen >> 8),
            static_cast<char>(packets[i].nLen)};
        pieces.push_back({head.data(), static_cast<qint32>(head.size())});
        pieces.push_back(packets[i]);
    }
    return m_viewer != nullptr && m_viewer->send(pieces);
}
