// Storms of connections to a server that listens, closes and listens again, while descriptors run out and
// come back. Who is connected in the end is served or let go, and each is handed out once.
#include "sim/World.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <algorithm>
#include <set>

#include <unistd.h>

namespace
{
constexpr quint16 kPort = 4711;
constexpr int kMostWaiting = 300; // of peers

// A peer dials, tells its number, and wants to read it from the server again.
struct Caller {
    bool bOver = false; // refused, reset, ended or gone
    QByteArray answer;
};

struct Storm {
    explicit Storm(sim::World& w) : world(w) { }

    sim::World& world;
    sim::Random& random = world.random();
    std::unique_ptr<NuvikaTcpServer> pServer;
    std::vector<std::unique_ptr<Caller>> callers;
    std::vector<std::unique_ptr<NuvikaTcpSocket>> sockets;
    std::set<int> heard; // numbers that callers have told
    std::vector<int> kept; // descriptors that nobody uses
    bool bFinishing = false;
    bool bListening = false;
    int nDepth = 0;
};

void dial(Storm& storm)
{
    storm.callers.push_back(std::make_unique<Caller>());
    Caller& caller = *storm.callers.back();
    const auto line = QByteArray::number(static_cast<int>(storm.callers.size())) + '\n';
    const bool bLeaves = !storm.bFinishing && storm.random.chance(0.2); // as soon as it is connected
    storm.world.dial("127.0.0.1", kPort, [&caller, line, bLeaves](sim::Peer& peer) {
        peer.onConnected = [&caller, &peer, line, bLeaves] {
            peer.write(line);
            caller.bOver = bLeaves;
            if (bLeaves)
                peer.reset();
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
    storm.sockets.push_back(std::make_unique<NuvikaTcpSocket>());
    NuvikaTcpSocket* echo = storm.sockets.back().get();
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
}

void handOut(Storm& storm, int descriptor)
{
    sim::Random& random = storm.random;
    storm.world.expect(storm.bListening, "a connection of a server that was closed");
    if (storm.bFinishing || random.chance(0.7))
        serve(storm, descriptor);
    else if (random.chance(0.5))
        ::close(descriptor);
    else
        storm.kept.push_back(descriptor);
    if (storm.bFinishing)
        return;
    if (random.chance(0.05) && storm.nDepth < 3) {
        ++storm.nDepth;
        storm.world.run(random.size(200));
        --storm.nDepth;
    }
    if (random.chance(0.03))
        closeServer(storm);
    if (random.chance(0.02))
        listen(storm);
    if (random.chance(0.1))
        storm.world.work(random.size(20000));
}

void makeServer(Storm& storm)
{
    storm.bListening = false;
    storm.pServer = std::make_unique<NuvikaTcpServer>();
    QObject::connect(
        storm.pServer.get(), &NuvikaTcpServer::newConnectionDesc, [&storm](int s) { handOut(storm, s); });
}

void freeDescriptors(Storm& storm)
{
    for (const int descriptor : std::exchange(storm.kept, {}))
        ::close(descriptor);
    const auto isOver = [](const auto& s) { return s->getState() != NuvikaTcpSocket::eConnected; };
    auto& all = storm.sockets;
    all.erase(std::remove_if(all.begin(), all.end(), isOver), all.end());
}

void step(Storm& storm)
{
    sim::Random& random = storm.random;
    sim::Weather& weather = storm.world.weather();
    const auto deed = random.below(8);
    if (deed == 0) { // descriptors are short
        weather.nDescriptors = static_cast<int>(sim::Kernel::get().openDescriptors() + random.below(6));
    } else if (deed == 1) {
        weather.nDescriptors = 10000;
        freeDescriptors(storm);
    } else if (deed == 2) {
        if (random.chance(0.3))
            makeServer(storm);
        else if (random.chance(0.3))
            closeServer(storm);
    } else if (deed == 3) {
        if (!storm.bListening)
            listen(storm);
    } else {
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
    const auto isOver = [](const auto& caller) { return caller->bOver; };
    storm.world.runUntil(
        [&] { return std::all_of(storm.callers.begin(), storm.callers.end(), isOver); }, 300000);
    for (std::size_t i = 0; i < storm.callers.size(); ++i) {
        const QByteArray whole = QByteArray::number(static_cast<int>(i + 1)) + '\n';
        storm.world.expect(isOver(storm.callers[i]), "caller %zu waits in vain", i + 1);
        storm.world.expect(
            whole.startsWith(storm.callers[i]->answer), "caller %zu hears another's number", i + 1);
    }
}
} // namespace

SCENARIO(accepts)
{
    Storm storm(world);
    makeServer(storm);
    for (std::uint64_t left = world.random().size(40) + 2; left > 0; --left)
        step(storm);
    finish(storm);
    const std::size_t heard = storm.heard.size();
    dial(storm); // and it goes on
    world.runUntil([&] { return storm.callers.back()->bOver; }, 10000);
    world.expect(storm.heard.size() == heard + 1, "the server serves nobody any more");
}
