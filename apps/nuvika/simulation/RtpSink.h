// Where a source's packets go.
#pragma once

#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>

#include <QtNetwork/QHostAddress>

class RtpSink
{
public:
    virtual ~RtpSink() = default;

    // False: what is made now is lost, as a whole.
    virtual bool isReady() const = 0;
    // The packets of a picture; how many went.
    virtual int sendPackets(const KepNuvikaUtil::BUFFER* packets, int count) = 0;
    virtual void sendReport(const KepNuvikaUtil::BUFFER& report) = 0;
};

// Two ports of a host or group.
class UdpSink : public RtpSink
{
public:
    UdpSink(const QHostAddress& host, unsigned short rtpPort, unsigned short rtcpPort);

    // Sends from a pair of ports, RTP from the even one, as RTSP names them; without it from one port.
    bool bindPair(const QHostAddress& address);
    unsigned short localPort() const { return m_rtpSender.localPort(); }

    bool isReady() const override { return true; }
    int sendPackets(const KepNuvikaUtil::BUFFER* packets, int count) override;
    void sendReport(const KepNuvikaUtil::BUFFER& report) override;

private:
    NuvikaLLSock::ADDR_V4_V6 m_rtp;
    NuvikaLLSock::ADDR_V4_V6 m_rtcp;
    NuvikaUdpSender m_rtpSender;
    NuvikaUdpSender m_rtcpSender;
};
