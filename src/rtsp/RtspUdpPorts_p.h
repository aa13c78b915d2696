// Private: the two ports of a track that comes by datagrams, RTP on the even one and RTCP behind it; of this
// host or of a group.
#pragma once

#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/SocketCalls.h>

#include <memory>

namespace Nuvika
{
class RtspDatagramListener
{
public:
    // May destroy the ports.
    virtual void datagram(int track, bool bRtcp, const NuvikaUdpReceiver::Datagram& datagram) = 0;

protected:
    ~RtspDatagramListener() = default;
};

class RtspUdpPorts
{
public:
    RtspUdpPorts(RtspDatagramListener& listener, int track);
    RtspUdpPorts(const RtspUdpPorts&) = delete;
    RtspUdpPorts& operator=(const RtspUdpPorts&) = delete;

    // A pair of free ports of that address. False with problem().
    bool open(const QHostAddress& local, int bufferSize);
    bool join(const QHostAddress& group, quint16 rtpPort, quint16 rtcpPort, const QHostAddress& local,
        int bufferSize);
    quint16 rtpPort() const { return m_rtp.pReceiver->localPort(); }
    quint16 rtcpPort() const { return m_rtcp.pReceiver->localPort(); }
    // From that port of ours; what the system does not take is lost, as datagrams are.
    void send(bool bRtcp, const QHostAddress& to, quint16 port, const QByteArray& bytes) const;
    const QString& problem() const { return m_problem; }
    // As of SocketError.
    int problemCode() const { return m_nProblemCode; }

private:
    struct Port {
        RtspUdpPorts* pOwner = nullptr;
        bool bRtcp = false;
        std::unique_ptr<NuvikaUdpReceiver> pReceiver;
    };
    static void received(const NuvikaUdpReceiver::Datagram* datagram, void* context);
    bool listen(int bufferSize);
    bool fail(const QString& what, const NuvikaUdpReceiver& receiver);

    RtspDatagramListener& m_listener;
    int m_nTrack;
    Port m_rtp;
    Port m_rtcp;
    QString m_problem;
    int m_nProblemCode = 0;
};
} // namespace Nuvika
