// Names that change, are not found, hang in the resolver and are answered late: each request is answered
// once, with what the name stood for; and sockets that connect by name, and are closed, reused and deleted
// meanwhile, reach whom they were told last.
#include "sim/World.h"

#include <KepNuvikaUtil/HostLookup.h>
#include <KepNuvikaUtil/KepNuvikaUtil.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>

#include <QtCore/QTimer>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace
{
constexpr int kHostNotFound = 11001;
constexpr quint16 kPort = 80;
constexpr quint64 kCacheMs = 60000;
constexpr quint64 kHangMs = 60000; // at the most
constexpr quint64 kSlackMs = 3000;
const std::array<const char*, 5> kNames{"camera", "Camera", "door", "gate", "nobody"};
// Two that answer, one that refuses, one that nobody hears of.
const std::array<const char*, 4> kAddresses{"10.0.0.7", "10.0.0.8", "10.0.0.1", "10.0.0.66"};

using Addresses = std::vector<std::string>;

// What a name has stood for since when.
struct Meaning {
    quint64 nSince;
    Addresses addresses;
};

class Asker;
class Caller;

struct Office {
    explicit Office(sim::World& w) : world(w)
    {
        s_pOffice = this;
        s_logHandler = qInstallMessageHandler(&Office::readLog);
    }
    ~Office() { qInstallMessageHandler(s_logHandler); }
    Office(const Office&) = delete;
    Office& operator=(const Office&) = delete;

    sim::World& world;
    bool bBad = false; // lookups may fail for no reason of the name's
    bool bServing = true;
    bool bRestarted = false;
    std::map<std::string, std::vector<Meaning>> meanings;
    std::map<std::string, std::pair<quint64, Addresses>> found; // last, by the system, and when
    std::set<int> ids;
    std::vector<std::unique_ptr<Asker>> askers;
    std::vector<std::unique_ptr<Caller>> callers;

    // Tells when the system has found something.
    static void readLog(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        s_logHandler(type, context, text);
        if (s_pOffice->bRestarted || !text.contains(QLatin1String(" done; ")))
            return; // it may have been a lookup of before
        const std::string name = text.section(QLatin1Char(' '), 3, 3).toStdString();
        s_pOffice->found[name] = {s_pOffice->world.nowMs(), s_pOffice->meanings.at(name).back().addresses};
    }
    static inline Office* s_pOffice = nullptr;
    static inline QtMessageHandler s_logHandler = nullptr;

    void rename(const std::string& name, const Addresses& addresses)
    {
        world.setName(name, addresses);
        meanings[name].push_back({world.nowMs(), addresses});
    }
    // At some time from then on.
    bool meant(const std::string& name, quint64 since, const Addresses& addresses) const
    {
        const std::vector<Meaning>& all = meanings.at(name);
        for (std::size_t i = 0; i < all.size(); ++i) {
            const bool bOver = i + 1 < all.size() && all[i + 1].nSince < since;
            if (!bOver && all[i].addresses == addresses)
                return true;
        }
        return false;
    }
};

// Asks for names.
class Asker : public QObject
{
    Q_OBJECT
public:
    explicit Asker(Office& office) : m_office(office) { }
    void ask();
    bool waits() const { return !m_requests.empty(); }
    std::string text() const { return m_requests.begin()->second.name; }

private slots:
    void answer(const QHostInfo& info);

private:
    struct Request {
        std::string name;
        quint64 nTime;
        Addresses cached; // which the answer must be; empty: any
    };
    void check(const Request& request, const QHostInfo& info);

    Office& m_office;
    std::map<int, Request> m_requests;
    bool m_bAsking = false;
};

void Asker::ask()
{
    sim::World& world = m_office.world;
    Request request{world.random().pick(kNames), world.nowMs(), {}};
    const auto last = m_office.found.find(request.name);
    const quint64 age = last == m_office.found.end() ? kCacheMs : request.nTime - last->second.first;
    if (age > kSlackMs && age < kCacheMs)
        request.cached = last->second.second;
    m_bAsking = true;
    const int id
        = NuvikaUtil::lookupHost(QString::fromStdString(request.name), this, SLOT(answer(QHostInfo)));
    m_bAsking = false;
    world.expect((id != 0) == m_office.bServing, "a lookup of %s has the id %d", request.name.c_str(), id);
    if (id == 0)
        return;
    world.expect(id > 0 && m_office.ids.insert(id).second, "the id %d comes twice", id);
    m_requests[id] = request;
}

void Asker::answer(const QHostInfo& info)
{
    sim::World& world = m_office.world;
    world.expect(!m_bAsking, "an answer inside of the call");
    const auto found = m_requests.find(info.lookupId());
    world.expect(found != m_requests.end(), "the answer %d was not asked for", info.lookupId());
    const Request request = found->second;
    m_requests.erase(found);
    check(request, info);
    for (std::uint64_t left = world.random().below(3); left > 0 && m_requests.size() < 5; --left)
        ask();
    if (world.random().chance(0.1))
        world.work(world.random().size(20000));
}

void Asker::check(const Request& request, const QHostInfo& info)
{
    sim::World& world = m_office.world;
    const char* name = request.name.c_str();
    const quint64 now = world.nowMs();
    world.expect(info.hostName().toStdString() == request.name, "an answer for another name than %s", name);
    world.expect(now - request.nTime <= kHangMs + kSlackMs, "the answer takes %llu ms",
        static_cast<unsigned long long>(now - request.nTime));
    Addresses addresses;
    for (const QHostAddress& address : info.addresses())
        addresses.push_back(address.toString().toStdString());
    const bool bFound = info.error() == QHostInfo::NoError;
    world.expect(bFound != addresses.empty(), "%s has %zu addresses, and the error %d", name,
        addresses.size(), static_cast<int>(info.error()));
    world.expect(request.cached.empty() || addresses == request.cached, "%s was known a moment ago", name);
    const quint64 since = request.nTime - (bFound ? kCacheMs + kSlackMs : 0);
    world.expect((!bFound && m_office.bBad) || m_office.meant(request.name, since, addresses),
        "%s did not stand for %s%s", name, bFound ? addresses.front().c_str() : "nothing",
        addresses.size() > 1 ? " and more" : "");
}

// Connects by name. Whoever answers says his address.
class Caller
{
public:
    explicit Caller(Office& office) : m_office(office) { makeSocket(); }
    void call();
    void act();
    bool waits() const { return m_bWaits; }
    const std::string& name() const { return m_name; }

private:
    void makeSocket();
    void connected();
    void greeted(const char* data, int size);
    void failed(int code);
    void close();
    bool mayMean(const std::string& address) const;

    Office& m_office;
    std::unique_ptr<NuvikaTcpSocket> m_pSocket;
    std::string m_name;
    quint64 m_nSince = 0;
    bool m_bWaits = false; // for connected() or error()
    bool m_bCalling = false;
    bool m_bOpen = false;
};

void Caller::makeSocket()
{
    m_pSocket = std::make_unique<NuvikaTcpSocket>();
    QObject::connect(m_pSocket.get(), &NuvikaTcpSocket::connected, [this] { connected(); });
    QObject::connect(m_pSocket.get(), &NuvikaTcpSocket::dataReceived,
        [this](const char* data, int size) { greeted(data, size); });
    QObject::connect(m_pSocket.get(), &NuvikaTcpSocket::error, [this](int code) { failed(code); });
    QObject::connect(m_pSocket.get(), &NuvikaTcpSocket::disconnected, [this] {
        m_office.world.expect(std::exchange(m_bOpen, false), "disconnected() without a connection");
        act();
    });
}

void Caller::call()
{
    sim::World& world = m_office.world;
    if (!m_pSocket)
        makeSocket();
    m_name = world.random().pick(kNames);
    m_nSince = world.nowMs();
    m_bWaits = m_bCalling = true;
    m_pSocket->connectToHost(QString::fromStdString(m_name), kPort);
    m_bCalling = false;
    world.expect(m_pSocket->getState() == NuvikaTcpSocket::eConnecting, "it does not connect");
}

bool Caller::mayMean(const std::string& address) const
{
    for (const Meaning& meaning : m_office.meanings.at(m_name)) {
        const auto& all = meaning.addresses;
        if (std::find(all.begin(), all.end(), address) != all.end()
            && m_office.meant(m_name, m_nSince - kCacheMs - kSlackMs, all))
            return true;
    }
    return false;
}

void Caller::connected()
{
    m_office.world.expect(!m_bCalling && std::exchange(m_bWaits, false), "connected() comes unasked");
    m_bOpen = true;
    const std::string peer = m_pSocket->peerAddress().toString().toStdString();
    m_office.world.expect(
        peer.empty() || mayMean(peer), "%s was called, and %s answers", m_name.c_str(), peer.c_str());
    m_office.world.expect(m_pSocket->peerName().toStdString() == m_name + ":80", "whose name?");
    act();
}

void Caller::greeted(const char* data, int size)
{
    m_office.world.expect(m_bOpen, "data without a connection");
    m_office.world.expect(size == 1 && mayMean(std::string("10.0.0.") + *data),
        "%s was called, and %.*s answers", m_name.c_str(), size, data);
    act();
}

void Caller::failed(int code)
{
    m_office.world.expect(!m_bCalling && (m_bWaits || m_bOpen), "error() comes unasked");
    const bool bNotFound = m_bWaits && code == kHostNotFound;
    m_office.world.expect(
        !bNotFound || m_office.bBad || !m_office.bServing || m_office.meant(m_name, m_nSince, {}),
        "%s is not found", m_name.c_str());
    m_bWaits = m_bOpen = false;
    m_pSocket->close();
    act();
}

void Caller::close()
{
    m_bWaits = m_bOpen = false;
    m_pSocket->close();
}

void Caller::act()
{
    sim::Random& random = m_office.world.random();
    if (!m_pSocket)
        return;
    switch (random.below(8)) {
    case 0:
        close();
        break;
    case 1:
        close();
        if (random.chance(0.5))
            m_pSocket.release()->deleteLater();
        else
            m_pSocket.reset();
        break;
    case 2: // at once another
        close();
        call();
        break;
    default:
        break;
    }
}

void change(Office& office)
{
    sim::Random& random = office.world.random();
    const std::string name = random.pick(kNames);
    Addresses addresses;
    for (const char* address : kAddresses) {
        if (name != "nobody" && random.chance(0.4))
            addresses.insert(
                addresses.begin() + static_cast<long>(random.below(addresses.size() + 1)), address);
    }
    office.rename(name, addresses);
}

// The library ends and begins anew, whoever still asks.
void restart(Office& office)
{
    const quint64 begin = office.world.nowMs();
    KepNuvikaUtilCleanup();
    office.world.expect(office.world.nowMs() - begin <= 2000 + kSlackMs, "the clean-up takes %llu ms",
        static_cast<unsigned long long>(office.world.nowMs() - begin));
    office.bServing = false;
    office.bRestarted = true;
    office.askers.clear(); // those get no answers
    office.askers.push_back(std::make_unique<Asker>(office));
    office.askers.back()->ask();
    for (const auto& caller : office.callers) {
        if (!caller->waits())
            continue;
        caller->act();
    }
    office.callers.clear(); // as their lookups
    office.callers.push_back(std::make_unique<Caller>(office));
    office.callers.back()->call();
    office.world.run(office.world.random().between(100, 5000));
    office.world.expect(
        !office.callers.back()->waits(), "without lookups a connect neither fails nor succeeds");
    KepNuvikaUtilInit();
    office.bServing = true;
    office.ids.clear();
    office.found.clear();
}

void step(Office& office)
{
    sim::Random& random = office.world.random();
    switch (random.below(10)) {
    case 0:
    case 1:
        change(office);
        break;
    case 2:
        if (!office.askers.empty() && random.chance(0.3))
            office.askers.erase(
                office.askers.begin() + static_cast<long>(random.below(office.askers.size())));
        break;
    case 3:
        office.askers.push_back(std::make_unique<Asker>(office));
        break;
    case 4:
    case 5:
        if (!office.askers.empty())
            random.pick(office.askers)->ask();
        break;
    case 6:
        if (random.chance(0.1) && office.world.weather().noThread == 0)
            restart(office);
        break;
    default:
        office.callers.push_back(std::make_unique<Caller>(office));
        office.callers.back()->call();
        break;
    }
    if (!office.callers.empty())
        random.pick(office.callers)->act();
    office.world.run(random.size(random.chance(0.1) ? 100000 : 1000));
}

void expectAnswers(Office& office)
{
    const auto waits = [&] {
        return std::any_of(
                   office.askers.begin(), office.askers.end(), [](const auto& a) { return a->waits(); })
            || std::any_of(
                office.callers.begin(), office.callers.end(), [](const auto& c) { return c->waits(); });
    };
    office.world.runUntil(
        [&] { return !waits(); }, 3600000); // who calls somebody whom nobody hears of waits long
    for (const auto& asker : office.askers)
        office.world.expect(
            !asker->waits(), "%s is not answered", asker->waits() ? asker->text().c_str() : "");
    for (const auto& caller : office.callers)
        office.world.expect(!caller->waits(), "who calls %s waits in vain", caller->name().c_str());
}
} // namespace

SCENARIO(lookups)
{
    Office office(world);
    sim::Weather& weather = world.weather();
    weather.stall = world.random().chance(0.7) ? 0.05 : weather.stall; // of ten times that hang
    weather.noThread = world.random().chance(0.8) ? 0 : weather.noThread;
    office.bBad = weather.lose > 0 || weather.mayFail();
    for (const char* ip : {"10.0.0.7", "10.0.0.8"}) {
        world.listen(ip, kPort, [ip](sim::Peer& peer) {
            peer.write(QByteArray(ip).right(1));
            peer.onEnd = [&peer] { peer.close(); };
        });
    }
    for (const char* name : kNames)
        office.rename(name, name == std::string("nobody") ? Addresses{} : Addresses{"10.0.0.7"});
    for (std::uint64_t left = world.random().size(100); left > 0; --left)
        step(office);
    expectAnswers(office);
}

#include "Lookups.moc"
