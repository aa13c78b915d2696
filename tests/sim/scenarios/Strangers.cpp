// Sockets that talk to peers which are not the library: they write when they like, urgent bytes too, end or
// reset in the middle, and read late. Every byte of both directions is checked.
#include "sim/World.h"

#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QTimer>

#include <algorithm>
#include <memory>

namespace
{
char byteAt(int i) { return static_cast<char>(static_cast<unsigned int>(i) * 2654435761U >> 11); }

QByteArray bytesFrom(int begin, int count)
{
    QByteArray bytes(count, '\0');
    for (int i = 0; i < count; ++i)
        bytes[i] = byteAt(begin + i);
    return bytes;
}

struct Meeting {
    explicit Meeting(sim::World& w) : world(w) { }

    void check(const char* who, const char* data, int size, int* pReceived) const
    {
        for (int i = 0; i < size; ++i)
            world.expect(data[i] == byteAt(*pReceived + i), "%s: byte %d is another", who, *pReceived + i);
        *pReceived += size;
    }

    sim::World& world;
    NuvikaTcpSocket socket{world.random().chance(0.5) ? NuvikaTcpSocket::eLight : NuvikaTcpSocket::eMedium,
        world.random().chance(0.5) ? NuvikaTcpSocket::eLight : NuvikaTcpSocket::eHeavy,
        world.random().chance(0.3)};
    int nSent = 0; // by the socket
    int nOffered = 0; // so, with what is being handed over: the peer may read that before the call returns
    int nReceived = 0; // by it
    int nWritten = 0; // by the peer
    int nRead = 0; // by it
    bool bPeerEnded = false; // and nothing else has happened to what it wrote
    bool bPeerReset = false;
    bool bOver = false;
    bool bConnected = false;
    bool bQuiet = false; // the peer does nothing for a while
};

using MeetingPtr = std::shared_ptr<Meeting>;

// What a peer does next, and when.
void stepOf(const MeetingPtr& meeting, sim::Peer& peer)
{
    auto& random = meeting->world.random();
    if (peer.isOver() || meeting->bPeerEnded || meeting->bPeerReset)
        return;
    const auto choice = meeting->bQuiet ? 7 : random.below(30);
    if (choice == 0) {
        meeting->bPeerEnded = true;
        peer.end();
    } else if (choice == 1) {
        meeting->bPeerReset = true;
        peer.reset();
    } else if (choice < 5) {
        peer.writeUrgent(byteAt(meeting->nWritten++));
    } else if (choice < 8) {
        peer.stall(random.chance(0.5));
    } else {
        const auto count = static_cast<int>(random.size(100000));
        peer.write(bytesFrom(meeting->nWritten, count));
        meeting->nWritten += count;
    }
    meeting->world.after(random.size(200), [meeting, &peer] { stepOf(meeting, peer); });
}

void welcome(const MeetingPtr& meeting, sim::Peer& peer)
{
    peer.onBytes = [meeting](const QByteArray& bytes) {
        meeting->check("the peer", bytes.constData(), bytes.size(), &meeting->nRead);
        meeting->world.expect(meeting->nRead <= meeting->nOffered, "the peer has read %d bytes of %d",
            meeting->nRead, meeting->nOffered);
    };
    peer.onEnd = [&peer] { peer.close(); };
    stepOf(meeting, peer);
}

void send(Meeting& meeting)
{
    const QByteArray bytes = bytesFrom(meeting.nSent, static_cast<int>(meeting.world.random().size(50000)));
    meeting.nOffered = meeting.nSent + bytes.size();
    if (meeting.socket.sendData(bytes.constData(), bytes.size()))
        meeting.nSent = meeting.nOffered;
    meeting.nOffered = meeting.nSent;
}

void ended(Meeting& meeting, int code)
{
    meeting.world.expect(!meeting.bOver, "a second end");
    meeting.bOver = true;
    meeting.world.expect(code != 0 || meeting.bPeerEnded, "an end that the peer did not make");
    meeting.world.expect(code != 0 || meeting.nReceived == meeting.nWritten,
        "the end comes after %d of %d bytes", meeting.nReceived, meeting.nWritten);
    meeting.socket.close();
}

void connectTo(const MeetingPtr& meeting, quint16 port)
{
    Meeting& here = *meeting;
    QObject::connect(&here.socket, &NuvikaTcpSocket::connected, [&here] {
        here.bConnected = true;
        send(here);
    });
    QObject::connect(&here.socket, &NuvikaTcpSocket::sigCanSend, [&here] {
        if (here.world.random().chance(0.7))
            send(here);
    });
    QObject::connect(&here.socket, &NuvikaTcpSocket::dataReceived, [&here](const char* data, int size) {
        here.check("the socket", data, size, &here.nReceived);
        if (here.world.random().chance(0.3))
            send(here);
        if (here.world.random().chance(0.1)) {
            here.socket.stallRecv();
            QTimer::singleShot(static_cast<int>(here.world.random().below(200)), &here.socket,
                [&here] { here.socket.resumeRecv(); });
        }
    });
    QObject::connect(&here.socket, &NuvikaTcpSocket::disconnected, [&here] { ended(here, 0); });
    QObject::connect(&here.socket, &NuvikaTcpSocket::error, [&here](int code) { ended(here, code); });
    here.socket.connectToHost(QHostAddress(QStringLiteral("10.0.0.9")), port);
}
// What was written is there without anything that comes behind it.
void expectAllArrives(sim::World& world, const std::vector<MeetingPtr>& meetings)
{
    for (const MeetingPtr& meeting : meetings)
        meeting->bQuiet = true;
    const auto waits = [](const MeetingPtr& m) {
        return !m->bOver && (!m->bConnected || (!m->bPeerReset && m->nReceived < m->nWritten));
    };
    const auto nobodyWaits = [&] { return std::none_of(meetings.begin(), meetings.end(), waits); };
    world.expect(world.runUntil(nobodyWaits, 200000), "bytes of a peer do not come out of the socket");
    for (const MeetingPtr& meeting : meetings)
        meeting->bQuiet = false;
}
} // namespace

SCENARIO(strangers)
{
    std::vector<MeetingPtr> meetings;
    for (std::uint64_t count = world.random().size(6); count > 0; --count) {
        const auto port = static_cast<quint16>(1000 + count);
        const auto meeting = std::make_shared<Meeting>(world);
        meetings.push_back(meeting);
        world.listen("10.0.0.9", port, [meeting](sim::Peer& peer) { welcome(meeting, peer); });
        connectTo(meeting, port);
    }
    world.run(world.random().size(10000));
    world.weather() = sim::Weather();
    expectAllArrives(world, meetings);
    const auto allOver = [&] {
        return std::all_of(meetings.begin(), meetings.end(), [](const auto& m) { return m->bOver; });
    };
    world.expect(world.runUntil(allOver, 600000), "a peer's end is not noticed");
    for (const MeetingPtr& meeting : meetings)
        meeting->socket.close();
    world.after(2000, [] {}); // the peers' last steps
    world.run(3000);
}
