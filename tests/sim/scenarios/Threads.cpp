// Threads that serve, connect to each other's servers, hand descriptors to each other and end in the middle
// of it, with all that they own. Signals come on the thread of their object.
#include "sim/scenarios/Sides.h"

#include "platform/Thread_p.h"

#include <QtCore/QEventLoop>
#include <QtCore/QMutex>

namespace
{
constexpr int kMostRooms = 12; // of a run

class Room;

struct House : sim::Talk {
    explicit House(sim::World& w) : Talk(w, 4 << 20, 100000) { world.weather() = weather; }
    // Calls it on the thread of a room, or of each, if that still runs by then.
    void post(bool bAll, const std::function<void(Room&)>& function);

    QMutex mutex; // rooms come and go on threads of their own
    std::vector<Room*> rooms;
};

class End : public sim::SideOf<NuvikaTcpSocket>
{
public:
    explicit End(House& house) : SideOf(house), m_house(house) { }

private:
    std::pair<QString, quint16> target() override;
    void other() override;

    House& m_house;
};

// What a thread owns.
class Room : public QObject
{
public:
    explicit Room(House& house);
    ~Room() override;
    void connectOut();
    quint16 port() const { return m_nPort; }

    std::vector<std::unique_ptr<End>> ends;

private:
    void tick();
    void accepted(int descriptor);

    House& m_house;
    NuvikaTcpServer m_server;
    quint16 m_nPort = 0;
    QTimer m_tick;
};

void House::post(bool bAll, const std::function<void(Room&)>& function)
{
    const QMutexLocker lock(&mutex);
    const Room* one = bAll || rooms.empty() ? nullptr : random.pick(rooms);
    for (Room* room : rooms) {
        if (bAll || room == one)
            QMetaObject::invokeMethod(
                room, [room, function] { function(*room); }, Qt::QueuedConnection);
    }
}

std::pair<QString, quint16> End::target()
{
    const QMutexLocker lock(&m_house.mutex);
    const quint16 port = m_random.pick(m_house.rooms)->port();
    return {m_random.chance(0.5) ? QStringLiteral("127.0.0.1") : QStringLiteral("here"), port};
}

void End::other()
{
    if (m_random.chance(0.1)) // with all that it owns, and this one's handler on the stack
        QThread::currentThread()->quit();
    else
        m_house.post(false, [](Room& room) { room.connectOut(); });
}

Room::Room(House& house) : m_house(house)
{
    QObject::connect(&m_server, &NuvikaTcpServer::newConnectionDesc, [this](int n) { accepted(n); });
    QObject::connect(&m_tick, &QTimer::timeout, [this] { tick(); });
    if (m_server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        m_nPort = m_server.serverPort();
    m_tick.start(static_cast<int>(house.random.between(5, 100)));
    const QMutexLocker lock(&house.mutex);
    house.rooms.push_back(this);
}

Room::~Room()
{
    const QMutexLocker lock(&m_house.mutex);
    ++m_house.nCuts; // connections may wait in its server
    m_house.rooms.erase(std::find(m_house.rooms.begin(), m_house.rooms.end(), this));
}

// Here, or elsewhere, where it may be passed on.
void Room::accepted(int descriptor)
{
    if (!m_house.bFinishing && m_house.random.chance(0.4)) {
        const auto let = [](int* n) {
            if (*n >= 0) // the other room was gone
                ::close(*n);
            std::default_delete<int>()(n);
        };
        const std::shared_ptr<int> sent(std::make_unique<int>(descriptor).release(), let);
        m_house.post(false, [sent](Room& room) { room.accepted(std::exchange(*sent, -1)); });
        return;
    }
    ends.push_back(std::make_unique<End>(m_house));
    ends.back()->accept(descriptor);
}

void Room::connectOut()
{
    if (m_house.bFinishing || ends.size() > 20)
        return;
    ends.push_back(std::make_unique<End>(m_house));
    ends.back()->connectOut();
}

void Room::tick()
{
    sim::Random& random = m_house.random;
    if (m_house.bFinishing)
        m_tick.stop();
    if (m_house.bFinishing || ends.empty())
        return;
    const std::size_t index = random.below(ends.size());
    if (random.chance(0.05) && m_house.nDepth == 0)
        ends.erase(ends.begin() + static_cast<std::ptrdiff_t>(index));
    else
        ends[index]->act();
    if (random.chance(0.2))
        connectOut();
}

void runRoom(House& house)
{
    auto room = std::make_unique<Room>(house);
    QEventLoop().exec();
    if (house.random.chance(0.5)) // with the thread's last deeds
        room.release()->deleteLater();
}

void finishAll(House& house)
{
    const auto inAll = [&](void (sim::Side::*function)()) {
        house.post(true, [function](Room& room) {
            for (std::size_t i = 0; i < room.ends.size(); ++i)
                (room.ends[i].get()->*function)();
        });
    };
    house.bFinishing = true;
    house.world.weather() = sim::Weather();
    inAll(&sim::Side::resume);
    house.world.run(20000); // descriptors and first bytes are still on their way
    sim::waitUntilNone(house, "waits in vain", &sim::Side::waits);
    inAll(&sim::Side::finish);
    sim::waitUntilNone(house, "does not end", &sim::Side::isActive);
}
} // namespace

SCENARIO(threads)
{
    world.setName("here", {"127.0.0.1"});
    House house(world);
    std::vector<std::unique_ptr<QThread>> threads;
    sim::Random& random = world.random();
    const auto start = [&] {
        std::unique_ptr<QThread> thread(QThread::create([&] { runRoom(house); }));
        if (Nuvika::Threads::start(*thread))
            threads.push_back(std::move(thread));
    };
    const auto end = [&](std::size_t index) {
        threads[index]->quit();
        threads[index]->wait();
        threads.erase(threads.begin() + static_cast<std::ptrdiff_t>(index));
    };
    for (std::uint64_t left = random.between(2, 3); left > 0; --left)
        start();
    int rooms = 3;
    for (std::uint64_t left = random.size(60); left > 0; --left) {
        house.post(false, [](Room& room) { room.connectOut(); });
        world.run(random.size(500));
        if (random.chance(0.1) && !threads.empty())
            end(random.below(threads.size()));
        if (random.chance(0.15) && threads.size() < 4 && rooms++ < kMostRooms)
            start();
    }
    finishAll(house);
    while (!threads.empty())
        end(0);
    world.expect(house.rooms.empty(), "%zu rooms outlive their threads", house.rooms.size());
}
