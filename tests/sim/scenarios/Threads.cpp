// Threads that serve, connect to each other's servers, hand descriptors to each other and end in the middle
// of it, with all that they own. Signals come on the thread of their object, bytes as they were sent.
#include "sim/scenarios/Bytes.h"

#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include "platform/Thread_p.h"

#include <QtCore/QMutex>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include <unistd.h>

namespace
{
constexpr qint64 kMostSent = 4 << 20; // bytes of a run
constexpr int kMostRooms = 12; // of a run

class Room;

// On its way to another thread, which may be gone.
struct Descriptor {
    explicit Descriptor(int descriptor) : n(descriptor) { }
    ~Descriptor()
    {
        if (n >= 0)
            ::close(n);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int n;
};

struct House {
    House(sim::World& w, const sim::Weather& bad) : world(w), weather(bad) { }
    // Calls it on the thread of a room, if that still runs by then.
    void post(const std::function<void(Room&)>& function);

    sim::World& world;
    const sim::Weather weather; // while it is bad
    QMutex mutex; // rooms come and go on threads of their own
    std::vector<Room*> rooms;
    sim::Streams streams;
    qint64 nSent = 0;
    int nCuts = 0; // connections that somebody has ended
    bool bFinishing = false;
};

class End
{
public:
    explicit End(House& house);
    ~End()
    {
        if (m_bActive)
            over();
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;
    void connectTo(quint16 port);
    void accept(int descriptor);
    void act();
    void sendEnd();
    void resume() { m_socket.resumeRecv(); }
    bool isActive() const { return m_bActive; }
    bool waits() const { return m_bActive && (!m_bConnected || m_bRefused || m_in.isDue()); }
    std::string text() const
    {
        return "stream " + std::to_string(m_pOut->nId) + (m_bConnected ? "" : " unconnected")
            + (m_bRefused ? " refused" : "") + ", received " + std::to_string(m_in.nReceived);
    }

private:
    void begin();
    void over();
    void send();
    void ended(int code);
    void checkSignal(const char* name, NuvikaTcpSocket::STATE state);

    House& m_house;
    const Qt::HANDLE m_thread = QThread::currentThreadId();
    NuvikaTcpSocket m_socket;
    bool m_bActive = false;
    bool m_bConnected = false;
    bool m_bRefused = false; // sendData() said no: sigCanSend() follows
    sim::Stream* m_pOut = nullptr;
    sim::Reception m_in;
};

// What a thread owns.
class Room : public QObject
{
public:
    explicit Room(House& house);
    ~Room() override;
    void take(int descriptor);
    void connectOut();
    void finish(bool bEnd);
    quint16 port() const { return m_nPort; }

    std::vector<std::unique_ptr<End>> ends;

private:
    void tick();
    void accepted(int descriptor);

    House& m_house;
    NuvikaTcpServer m_server;
    quint16 m_nPort = 0;
    QTimer m_tick;
    int m_nDepth = 0;
};

void House::post(const std::function<void(Room&)>& function)
{
    const QMutexLocker lock(&mutex);
    if (rooms.empty())
        return;
    Room* room = world.random().pick(rooms);
    QMetaObject::invokeMethod(
        room, [room, function] { function(*room); }, Qt::QueuedConnection);
}

// --- a connection ----------------------------------------------------------------------------------------

End::End(House& house) : m_house(house)
{
    using Socket = NuvikaTcpSocket;
    QObject::connect(&m_socket, &Socket::connected, [this] {
        checkSignal("connected", Socket::eConnected);
        m_house.world.expect(!std::exchange(m_bConnected, true), "connected() comes a second time");
        send();
    });
    QObject::connect(&m_socket, &Socket::dataReceived, [this](const char* data, int size) {
        checkSignal("dataReceived", Socket::eConnected);
        m_in.read(m_house.world, m_house.streams, data, size);
        sim::expectKept(m_house.world, data, size, [this] { act(); });
    });
    QObject::connect(&m_socket, &Socket::disconnected, [this] { ended(0); });
    QObject::connect(&m_socket, &Socket::error, [this](int code) { ended(code); });
    QObject::connect(&m_socket, &Socket::sigCanSend, [this] {
        checkSignal("sigCanSend", Socket::eConnected);
        m_bRefused = false;
        act();
    });
}

void End::checkSignal(const char* name, NuvikaTcpSocket::STATE state)
{
    m_house.world.expect(QThread::currentThreadId() == m_thread, "%s() comes on another thread", name);
    m_house.world.expect(m_bActive, "%s() comes after the connection's end", name);
    m_house.world.expect(
        m_socket.getState() == state, "%s() comes in state %d", name, static_cast<int>(m_socket.getState()));
}

void End::begin()
{
    m_bActive = true;
    m_bConnected = false;
    m_pOut = &m_house.streams.make();
    m_in = {};
}

void End::connectTo(quint16 port)
{
    begin();
    if (m_house.world.random().chance(0.5))
        m_socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    else
        m_socket.connectToHost(QStringLiteral("here"), port);
}

void End::accept(int descriptor)
{
    begin();
    m_bConnected = true;
    m_socket.setSocketDescriptor(descriptor);
    send();
}

void End::over()
{
    ++m_house.nCuts;
    m_bActive = m_bConnected = m_bRefused = false;
    m_pOut->bCut = true;
}

void End::ended(int code)
{
    const sim::Weather& weather = m_house.weather;
    checkSignal(code == 0 ? "disconnected" : "error",
        code == 0 ? NuvikaTcpSocket::eUnconnected : NuvikaTcpSocket::eError);
    const bool bFine = !weather.mayReset() && !weather.mayFail() && weather.refuse == 0 && weather.lose == 0;
    m_house.world.expect(code == 0 || !bFine || m_house.nCuts > 0, "error %d without a reason", code);
    if (code == 0 && m_in.pStream != nullptr && !m_in.pStream->bCut) {
        m_house.world.expect(m_in.pStream->bEnded && m_in.isComplete(),
            "stream %u ends after %lld of %lld bytes", m_in.pStream->nId, m_in.nReceived,
            m_in.pStream->nSent);
    }
    over();
    m_socket.close();
}

void End::send()
{
    if (!m_bConnected || m_pOut->bEnded || m_house.nSent > kMostSent)
        return;
    const QByteArray bytes
        = m_pOut->next(static_cast<int>(m_house.world.random().size(100000)) + (m_pOut->nSent == 0 ? 4 : 0));
    m_pOut->nSent += bytes.size(); // another thread may receive them at once
    m_bRefused = !m_socket.sendData(bytes.constData(), bytes.size());
    m_pOut->nSent -= m_bRefused ? bytes.size() : 0;
    m_house.nSent += bytes.size();
}

void End::sendEnd()
{
    if (!m_bConnected || std::exchange(m_pOut->bEnded, true))
        return;
    m_house.world.expect(m_socket.sendEndOfData(), "the end of data is refused");
}

void End::act()
{
    sim::Random& random = m_house.world.random();
    if (m_house.bFinishing || random.chance(0.4))
        return;
    switch (random.below(12)) {
    case 0:
        if (m_bActive)
            over();
        m_socket.close();
        break;
    case 1:
        sendEnd();
        break;
    case 2:
        m_socket.stallRecv();
        break;
    case 3:
        m_socket.resumeRecv();
        break;
    case 4:
        m_house.world.work(random.size(5000));
        break;
    case 5:
        m_house.post([](Room& room) { room.connectOut(); });
        break;
    case 6: // with all that it owns, and this one's handler on the stack
        if (random.chance(0.1))
            QThread::currentThread()->quit();
        break;
    default:
        send();
    }
}

// --- a thread's own --------------------------------------------------------------------------------------

Room::Room(House& house) : m_house(house)
{
    QObject::connect(&m_server, &NuvikaTcpServer::newConnectionDesc, [this](int n) { accepted(n); });
    QObject::connect(&m_tick, &QTimer::timeout, [this] { tick(); });
    if (m_server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        m_nPort = m_server.serverPort();
    m_tick.start(static_cast<int>(house.world.random().between(5, 100)));
    const QMutexLocker lock(&house.mutex);
    house.rooms.push_back(this);
}

Room::~Room()
{
    const QMutexLocker lock(&m_house.mutex);
    m_house.rooms.erase(std::find(m_house.rooms.begin(), m_house.rooms.end(), this));
}

void Room::take(int descriptor)
{
    ends.push_back(std::make_unique<End>(m_house));
    ends.back()->accept(descriptor);
}

// Here, or elsewhere, where it may be passed on.
void Room::accepted(int descriptor)
{
    if (!m_house.bFinishing && m_house.world.random().chance(0.4)) {
        const auto sent = std::make_shared<Descriptor>(descriptor);
        m_house.post([sent](Room& room) { room.accepted(std::exchange(sent->n, -1)); });
        return;
    }
    take(descriptor);
}

void Room::connectOut()
{
    quint16 port = 0;
    {
        const QMutexLocker lock(&m_house.mutex);
        port = m_house.world.random().pick(m_house.rooms)->port();
    }
    if (port == 0 || m_house.bFinishing || ends.size() > 20)
        return;
    ends.push_back(std::make_unique<End>(m_house));
    ends.back()->connectTo(port);
}

void Room::tick()
{
    sim::Random& random = m_house.world.random();
    if (m_house.bFinishing || ends.empty())
        return;
    const std::size_t index = random.below(ends.size());
    if (random.chance(0.05) && m_nDepth == 0)
        ends.erase(ends.begin() + static_cast<std::ptrdiff_t>(index));
    else
        ends[index]->act();
    if (random.chance(0.1))
        sim::runNestedLoop(m_house.world, m_nDepth);
    if (random.chance(0.2))
        connectOut();
}

void Room::finish(bool bEnd)
{
    for (const auto& end : ends) {
        end->resume();
        if (bEnd)
            end->sendEnd();
    }
}

class RoomThread : public QThread
{
public:
    explicit RoomThread(House& house) : m_house(house) { }

protected:
    void run() override
    {
        if (m_house.world.random().chance(0.5)) {
            Room room(m_house); // ends behind the loop
            exec();
            return;
        }
        auto* room = std::make_unique<Room>(m_house).release(); // ends with the thread's last deeds
        QObject::connect(this, &QThread::finished, room, &QObject::deleteLater, Qt::DirectConnection);
        exec();
    }

private:
    House& m_house;
};

template <class Condition>
void waitFor(House& house, const char* text, Condition condition)
{
    const auto look = [&](bool bFail) {
        bool bAny = false;
        for (Room* room : house.rooms) {
            for (const auto& end : room->ends) {
                if (condition(*end) && bFail)
                    house.world.expect(false, "%s: %s", text, end->text().c_str());
                bAny = bAny || condition(*end);
            }
        }
        return bAny;
    };
    house.world.runUntil([&] { return !look(false); }, 300000);
    look(true);
}

// Each of the rooms that are there now.
template <class Function>
void inAllRooms(House& house, Function function)
{
    const QMutexLocker lock(&house.mutex);
    for (Room* room : house.rooms)
        QMetaObject::invokeMethod(
            room, [room, function] { function(*room); }, Qt::QueuedConnection);
}
} // namespace

SCENARIO(threads)
{
    const sim::Weather weather = world.weather();
    world.setName("here", {"127.0.0.1"});
    House house(world, weather);
    std::vector<std::unique_ptr<RoomThread>> threads;
    sim::Random& random = world.random();
    const auto start = [&] {
        auto thread = std::make_unique<RoomThread>(house);
        if (Nuvika::Threads::start(*thread))
            threads.push_back(std::move(thread));
    };
    for (std::uint64_t left = random.between(2, 3); left > 0; --left)
        start();
    int rooms = 3;
    for (std::uint64_t left = random.size(60); left > 0; --left) {
        house.post([](Room& room) { room.connectOut(); });
        world.run(random.size(500));
        if (random.chance(0.1) && !threads.empty()) {
            const std::unique_ptr<RoomThread> ending = std::move(threads[random.below(threads.size())]);
            threads.erase(std::find(threads.begin(), threads.end(), nullptr));
            ending->quit();
            ending->wait();
        }
        if (random.chance(0.15) && threads.size() < 4 && rooms++ < kMostRooms)
            start();
    }
    house.bFinishing = true;
    world.weather() = sim::Weather();
    inAllRooms(house, [](Room& room) { room.finish(false); });
    world.run(20000); // descriptors and first bytes are still on their way
    waitFor(house, "waits in vain", [](const End& end) { return end.waits(); });
    inAllRooms(house, [](Room& room) { room.finish(true); });
    waitFor(house, "does not end", [](const End& end) { return end.isActive(); });
    for (const auto& thread : threads) {
        thread->quit();
        thread->wait();
    }
    world.expect(house.rooms.empty(), "%zu rooms outlive their threads", house.rooms.size());
}
