// Private: reads what an RTSP connection brings (RFC 2326, section 10.12): messages of either direction, and
// interleaved packets between them.
//
//     $ channel(1) length(2) packet(length)   |   RTSP/1.0 200 OK ... [body]   |   OPTIONS rtsp://... [body]
//
// It is fed what was received and pulled for events, as the reader of HTTP, which reads its heads. A packet
// that lies whole in one receive is shown where it lies; of one that is cut the pieces are joined once, in
// memory of its size. Packets may stand between the lines of a head.
//
// Bytes that are neither are strays: skipped, up to the next '$' with a known channel, a version of RTP, a
// plausible length and, where it is here, a plausible next start, or to "RTSP/". Each byte is looked at a
// fixed number of times.
#pragma once

#include <KepNuvikaUtil/RtspOptions.h>

#include "http/HttpMessageReader_p.h"
#include "rtsp/RtspHead_p.h"

#include <QtCore/QByteArray>

#include <bitset>

namespace Nuvika
{
class RtspMessageReader
{
public:
    enum class Event {
        NeedMore,
        Packet, // channel(), data(), size()
        Message, // head(), body()
        Failed // over a limit; nothing more comes, problem() tells
    };
    using Channels = std::bitset<256>;

    explicit RtspMessageReader(const RtspLimits& limits = RtspLimits());

    // The bytes must stay in place until next() says NeedMore.
    void feed(const char* data, int size);
    Event next();

    // Those that were set up: looked for among strays. In their places packets of any channel are read.
    void setChannels(const Channels& channels) { m_channels = channels; }
    // The next answer is a description, which may be longer than it says: what stands right behind its body,
    // received with it, belongs to it, up to what begins a packet or message.
    void awaitDescription(bool bAwait) { m_bDescription = bAwait; }

    int channel() const { return m_nChannel; }
    const char* data() const { return m_pData; }
    int size() const { return m_nData; }
    // Where the packet lies, if not in the bytes that were fed: hold it while the packet is used.
    const QByteArray& memory() const { return m_memory; }
    const RtspHead& head() const { return m_head; }
    // The whole head as it came, and the body.
    const QByteArray& headText() const { return m_headText; }
    const QByteArray& body() const { return m_body; }

    quint64 strayBytes() const { return m_nStrays; }
    // Bytes read so far, of the whole connection.
    quint64 position() const { return m_nPosition; }
    // Why it failed, in words.
    const QString& problem() const { return m_problem; }

private:
    enum class State { Between, Head, Packet, Body, Failed };
    enum class Start { Packet, Message, Stray, Undecided };

    Start startOf(const char* p, std::size_t n) const;
    Start packetAmongStrays(const char* p, std::size_t n) const;
    void consume(std::size_t n);
    bool refill();
    bool readBetween();
    void countStrays(std::size_t n);
    void beginPacket();
    void readPacket();
    bool readHead();
    bool takeHead();
    void readBody();
    void takeRunOn();
    void finishMessage();
    void fail(const QString& problem);
    void reportPacket(const char* data, std::size_t size);

    const RtspLimits m_limits;
    HttpMessageReader m_heads;
    Channels m_channels;
    State m_state = State::Between;
    Event m_event = Event::NeedMore;
    const char* m_pIn = nullptr; // what is read now
    std::size_t m_nIn = 0;
    const char* m_pNext = nullptr; // behind it, when m_front is read now
    std::size_t m_nNext = 0;
    bool m_bInFront = false;
    QByteArray m_front; // a few bytes that decide what begins
    bool m_bAmongStrays = false;
    bool m_bLineStart = false; // in a head, behind its first line
    bool m_bInHead = false; // the packet stands in a head
    bool m_bDescription = false;
    std::size_t m_nRow = 0; // strays
    quint64 m_nStrays = 0;
    quint64 m_nPosition = 0;
    int m_nChannel = 0;
    std::size_t m_nPacket = 0;
    QByteArray m_memory;
    const char* m_pData = nullptr;
    int m_nData = 0;
    RtspHead m_head;
    QByteArray m_headText;
    QByteArray m_body;
    std::size_t m_nBodyLeft = 0;
    QString m_problem;
};
} // namespace Nuvika
