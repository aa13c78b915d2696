// What scenarios of talking sockets share: streams whose bytes tell whose they are and where they stand.
#pragma once

#include "sim/World.h"

#include <algorithm>
#include <deque>
#include <vector>

namespace sim
{
// One direction of one connection. Its bytes begin with its number, and follow from that.
struct Stream {
    quint32 nId = 0;
    qint64 nSent = 0; // handed over and taken
    bool bEnded = false; // the sender has announced the end,
    bool bCut = false; // or let go: what was not sent yet is lost,
    bool bBroken = false; // or was told of the connection's failure: so must the receiver be
    std::vector<int> sizes; // of messages

    char at(qint64 i) const
    {
        if (i < 4)
            return static_cast<char>(nId >> (8 * i));
        return static_cast<char>((static_cast<quint64>(i) * 2654435761U + nId * 40503U) >> 13);
    }
    // Those that follow what was sent.
    QByteArray next(int size) const
    {
        QByteArray bytes(size, '\0');
        for (int i = 0; i < size; ++i)
            bytes[i] = at(nSent + i);
        return bytes;
    }
};

class Streams
{
public:
    Stream& make()
    {
        m_streams.emplace_back();
        m_streams.back().nId = static_cast<quint32>(m_streams.size());
        return m_streams.back();
    }
    Stream* find(quint32 id) { return id >= 1 && id <= m_streams.size() ? &m_streams[id - 1] : nullptr; }

private:
    std::deque<Stream> m_streams;
};

// What a receiver has got of one.
struct Reception {
    Stream* pStream = nullptr; // once its number is known
    qint64 nReceived = 0;

    void read(World& world, Streams& streams, const char* data, int size)
    {
        for (int i = 0; i < size; ++i, ++nReceived) {
            if (nReceived < 4) {
                m_nId |= static_cast<quint32>(static_cast<unsigned char>(data[i])) << (8 * nReceived);
                if (nReceived == 3)
                    pStream = streams.find(m_nId);
                world.expect(nReceived < 3 || pStream != nullptr, "a stream begins with %08x", m_nId);
            } else if (data[i] != pStream->at(nReceived)) {
                world.expect(false, "stream %u: byte %lld is another", m_nId, nReceived);
            }
        }
        world.expect(pStream == nullptr || nReceived <= pStream->nSent, "more is received than was sent");
    }
    // What was read is the next message, whole.
    void readMessage(World& world, int size)
    {
        world.expect(
            pStream != nullptr && m_nMessages < pStream->sizes.size() && size == pStream->sizes[m_nMessages],
            "message %zu of %u has %d bytes, and is another", m_nMessages, m_nId, size);
        ++m_nMessages;
    }
    bool isComplete() const { return pStream != nullptr && nReceived == pStream->nSent; }
    bool isDue() const { return pStream != nullptr && !pStream->bCut && nReceived < pStream->nSent; }

private:
    quint32 m_nId = 0;
    std::size_t m_nMessages = 0;
};
} // namespace sim
