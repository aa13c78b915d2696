// Storms of connections to a server that listens, closes and listens again, while descriptors run out and
// come back. Who is connected in the end is served or let go, and each is handed out once, in order.
#include "sim/World.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <algorithm>
#include <memory>
#include <set>

#include <unistd.h>

namespace
{
constexpr quint16 kPort = 4711;
constexpr int kMostWaiting = 300; // of peers

// A peer dials, tells its number, and wants to read it from the server again.
struct Caller {
    sim::Peer* pPeer = nullptr;
    bool bConnected = false;
    bool bOver = false; // refused, reset, ended or gone
    bool bLeaves = false; // as soon as it is connected
    QByteArray answer;
};

struct Storm {
    explicit Storm(sim::World& w) : world(w) { }

    sim::World& world;
    NuvikaTcpServer* pServer = nullptr;
    std::vector<std::unique_ptr<Caller>> callers;
    std::vector<std::unique_ptr<NuvikaTcpSocket>> sockets;
    std::set<int> heard; // numbers that callers have told
    std::vector<int> kept; // descriptors that nobody uses
    int nHandedOut = 0;
    bool bFinishing = false;
    bool bListening = false;
    int nDepth = 0;
};

void dial(Storm& storm)
{
    auto& random = storm.world.random();
    storm.callers.push_back(std::make_unique<Caller>());
    Caller& caller = *storm.callers.back();
    const auto number = static_cast<int>(storm.callers.size());
    caller.bLeaves = random.chance(0.2);
    caller.pPeer = &storm.world.dial("127.0.0.1", kPort, [&caller, number](sim::Peer& peer) {
        peer.onConnected = [&caller, &peer, number] {
            caller.bConnected = true;
            peer.write(QByteArray::number(number) + '\n');
            if (caller.bLeaves) {
                caller.bOver = true;
                peer.reset();
            }
        };
        peer.onBytes = [&caller](const QByteArray& bytes) { caller.answer += bytes; };
        peer.onEnd = [&caller] { caller.bOver = true; };
        peer.onFailure = [&caller](int) { caller.bOver = true; };
    });
}

void listen(Storm& storm)
{
    storm.bListening = storm.pServer->listen(QHostAddress(QHostAddress::LocalHost), kPort);
    storm.world.expect(storm.bListening == storm.pServer->isListening(), "listening, or not?");
    storm.world.expect(!storm.bListening || storm.pServer->serverPort() == kPort, "another port");
}

void closeServer(Storm& storm)
{
    storm.pServer->close();
    storm.bListening = false;
    storm.world.expect(!storm.pServer->isListening() && storm.pServer->serverPort() == 0, "it listens still");
}

// Echoes a line, then goes.
void serve(Storm& storm, int descriptor)
{
    auto socket = std::make_unique<NuvikaTcpSocket>();
    NuvikaTcpSocket* echo = socket.get();
    const auto line = std::make_shared<QByteArray>();
    QObject::connect(echo, &NuvikaTcpSocket::dataReceived, [&storm, echo, line](const char* data, int size) {
        line->append(data, size);
        if (!line->endsWith('\n'))
            return;
        storm.world.expect(
            storm.heard.insert(line->toInt()).second, "caller %d is served twice", line->toInt());
        echo->sendData(line->constData(), line->size());
        echo->sendEndOfData();
    });
    echo->setSocketDescriptor(descriptor);
    storm.sockets.push_back(std::move(socket));
}

void nestedLoop(Storm& storm)
{
    if (storm.nDepth > 2)
        return;
    ++storm.nDepth;
    storm.world.run(storm.world.random().size(200));
    --storm.nDepth;
}

void handOut(Storm& storm, int descriptor)
{
    auto& random = storm.world.random();
    storm.world.expect(storm.bListening, "a connection of a server that was closed");
    ++storm.nHandedOut;
    const bool bServe = storm.bFinishing || random.chance(0.7);
    if (bServe)
        serve(storm, descriptor);
    else if (random.chance(0.5))
        ::close(descriptor);
    else
        storm.kept.push_back(descriptor);
    if (storm.bFinishing)
        return;
    if (random.chance(0.05))
        nestedLoop(storm);
    if (random.chance(0.03))
        closeServer(storm);
    if (random.chance(0.02))
        listen(storm);
    if (random.chance(0.1))
        storm.world.work(random.size(20000));
}

void makeServer(Storm& storm, std::unique_ptr<NuvikaTcpServer>* server)
{
    *server = std::make_unique<NuvikaTcpServer>();
    storm.pServer = server->get();
    storm.bListening = false;
    QObject::connect(
        storm.pServer, &NuvikaTcpServer::newConnectionDesc, [&storm](int s) { handOut(storm, s); });
}

void freeDescriptors(Storm& storm)
{
    for (const int descriptor : storm.kept)
        ::close(descriptor);
    storm.kept.clear();
    auto& sockets = storm.sockets;
    if (storm.nDepth == 0)
        sockets.erase(std::remove_if(sockets.begin(), sockets.end(),
                          [](const auto& s) { return s->getState() != NuvikaTcpSocket::eConnected; }),
            sockets.end());
}

void step(Storm& storm, std::unique_ptr<NuvikaTcpServer>* server)
{
    auto& random = storm.world.random();
    auto& weather = storm.world.weather();
    switch (random.below(8)) {
    case 0: // descriptors are short
        weather.nDescriptors = static_cast<int>(sim::Kernel::get().openDescriptors() + random.below(6));
        break;
    case 1:
        weather.nDescriptors = 10000;
        freeDescriptors(storm);
        break;
    case 2:
        if (random.chance(0.3))
            makeServer(storm, server);
        else if (random.chance(0.3))
            closeServer(storm);
        break;
    case 3:
        if (!storm.bListening)
            listen(storm);
        break;
    default:
        for (std::uint64_t left = random.size(60); left > 0 && storm.callers.size() < kMostWaiting; --left)
            dial(storm);
    }
    storm.world.run(random.size(2000));
}

// Descriptors are back and the weather is fine: everybody who is connected hears from the server or is let
// go.
void finish(Storm& storm)
{
    storm.bFinishing = true;
    storm.world.weather() = sim::Weather();
    freeDescriptors(storm);
    if (!storm.bListening)
        listen(storm);
    storm.world.expect(storm.bListening, "the server does not listen again");
    const auto waits = [](const std::unique_ptr<Caller>& caller) { return !caller->bOver; };
    const auto nobodyWaits = [&] { return std::none_of(storm.callers.begin(), storm.callers.end(), waits); };
    storm.world.runUntil(nobodyWaits, 300000);
    for (std::size_t i = 0; i < storm.callers.size(); ++i) {
        const Caller& caller = *storm.callers[i];
        storm.world.expect(caller.bOver, "caller %zu (%s) waits in vain", i + 1,
            caller.bConnected ? "connected" : "not connected");
        const QByteArray whole = QByteArray::number(static_cast<int>(i + 1)) + '\n';
        storm.world.expect(whole.startsWith(caller.answer), "caller %zu hears another's number", i + 1);
    }
}
} // namespace

SCENARIO(accepts)
{
    Storm storm(world);
    std::unique_ptr<NuvikaTcpServer> server;
    makeServer(storm, &server);
    for (std::uint64_t left = world.random().size(40) + 2; left > 0; --left)
        step(storm, &server);
    finish(storm);
    const std::size_t heard = storm.heard.size();
    dial(storm); // and it goes on
    storm.callers.back()->bLeaves = false;
    world.runUntil([&] { return storm.callers.back()->bOver; }, 10000);
    world.expect(storm.heard.size() == heard + 1, "the server serves nobody any more");
}
