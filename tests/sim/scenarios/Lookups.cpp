// Names that change, are not found, hang in the resolver and are answered late: each request is answered
// once, with what the name stood for; and sockets that connect by name reach whom they were told last.
#include "sim/scenarios/Sides.h"

#include <KepNuvikaUtil/HostLookup.h>
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <array>
#include <map>
#include <set>

namespace
{
constexpr quint16 kPort = 80;
constexpr quint64 kCacheMs = 60000;
constexpr quint64 kHangMs = 60000; // at the most
constexpr quint64 kSlackMs = 3000;
const std::array<std::string, 5> kNames{"camera", "Camera", "door", "gate", "nobody"};
// Two that answer, one that refuses, one that nobody hears of.
const std::array<std::string, 4> kAddresses{"10.0.0.7", "10.0.0.8", "10.0.0.1", "10.0.0.66"};

using Addresses = std::vector<std::string>;

// What a name has stood for since when.
struct Meaning {
    qint64 nSince;
    Addresses addresses;
};

class Asker;

struct Office : sim::Talk {
    explicit Office(sim::World& w) : Talk(w, 0, 100)
    {
        s_pOffice = this;
        s_logHandler = qInstallMessageHandler(&Office::readLog);
        nPort = kPort;
        for (const std::string& name : kNames)
            hosts.push_back(QString::fromStdString(name));
    }
    ~Office() { qInstallMessageHandler(s_logHandler); }
    Office(const Office&) = delete;
    Office& operator=(const Office&) = delete;

    bool bBad = false; // lookups may fail for no reason of the name's
    bool bServing = true;
    bool bRestarted = false;
    std::map<std::string, std::vector<Meaning>> meanings;
    std::map<std::string, std::pair<quint64, Addresses>> found; // last, by the system, and when
    std::set<int> ids;
    std::vector<std::unique_ptr<Asker>> askers;

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
        meanings[name].push_back({static_cast<qint64>(world.nowMs()), addresses});
    }
    // At some time from then on.
    template <class Condition>
    bool meant(const std::string& name, qint64 since, Condition condition) const
    {
        const std::vector<Meaning>& all = meanings.at(name);
        for (std::size_t i = 0; i < all.size(); ++i) {
            const bool bOver = i + 1 < all.size() && all[i + 1].nSince < since;
            if (!bOver && condition(all[i].addresses))
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
    Request request{m_office.random.pick(kNames), world.nowMs(), {}};
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
    for (std::uint64_t left = m_office.random.below(3); left > 0 && m_requests.size() < 5; --left)
        ask();
    if (m_office.random.chance(0.1))
        world.work(m_office.random.size(20000));
}

void Asker::check(const Request& request, const QHostInfo& info)
{
    sim::World& world = m_office.world;
    const char* name = request.name.c_str();
    const quint64 now = world.nowMs();
    world.expect(info.hostName().toStdString() == request.name, "an answer for another name than %s", name);
    // Where threads are refused it waits for those that there are.
    const quint64 most = (m_office.bBad ? 10 : 1) * kHangMs + kSlackMs;
    world.expect(now - request.nTime <= most, "the answer takes %llu ms",
        static_cast<unsigned long long>(now - request.nTime));
    Addresses addresses;
    for (const QHostAddress& address : info.addresses())
        addresses.push_back(address.toString().toStdString());
    const bool bFound = info.error() == QHostInfo::NoError;
    world.expect(bFound != addresses.empty(), "%s has %zu addresses, and the error %d", name,
        addresses.size(), static_cast<int>(info.error()));
    world.expect(request.cached.empty() || addresses == request.cached, "%s was known a moment ago", name);
    const auto since = static_cast<qint64>(request.nTime - (bFound ? kCacheMs + kSlackMs : 0));
    const auto same = [&](const Addresses& all) { return all == addresses; };
    world.expect((!bFound && m_office.bBad) || m_office.meant(request.name, since, same),
        "%s did not stand for %s%s", name, bFound ? addresses.front().c_str() : "nothing",
        addresses.size() > 1 ? " and more" : "");
}

// Connects by name.
class Caller : public sim::SideOf<NuvikaTcpSocket>
{
public:
    explicit Caller(Office& office) : SideOf(office), m_office(office) { }

private:
    std::pair<QString, quint16> target() override
    {
        const auto target = SideOf::target();
        m_name = target.first.toStdString();
        return target;
    }
    void checkConnected() override
    {
        const std::string peer = m_pSocket->peerAddress().toString().toStdString();
        const auto names = [&](const Addresses& all) { return std::count(all.begin(), all.end(), peer) > 0; };
        m_world.expect(peer.empty()
                || m_office.meant(m_name, static_cast<qint64>(m_nBegin - kCacheMs - kSlackMs), names),
            "%s was called, and %s answers", m_name.c_str(), peer.c_str());
        m_world.expect(m_pSocket->peerName().toStdString() == m_name + ":80", "whose name?");
    }
    void checkEnd(int code, bool) override
    {
        const auto none = [](const Addresses& all) { return all.empty(); };
        m_world.expect(code != sim::kHostNotFound || m_office.bBad || !m_office.bServing
                || m_office.meant(m_name, static_cast<qint64>(m_nBegin), none),
            "%s is not found", m_name.c_str());
    }

    Office& m_office;
    std::string m_name;
};

void change(Office& office)
{
    const std::string name = office.random.pick(kNames);
    Addresses addresses;
    for (const std::string& address : kAddresses) {
        if (name != "nobody" && office.random.chance(0.4))
            addresses.insert(
                addresses.begin() + static_cast<long>(office.random.below(addresses.size() + 1)), address);
    }
    office.rename(name, addresses);
}

sim::Side& call(Office& office)
{
    office.own.push_back(std::make_unique<Caller>(office));
    office.own.back()->connectOut();
    return *office.own.back();
}

Asker& newAsker(Office& office)
{
    office.askers.push_back(std::make_unique<Asker>(office));
    return *office.askers.back();
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
    office.askers.clear(); // those get no answers,
    newAsker(office).ask();
    office.own.clear(); // nor those
    const sim::Side& caller = call(office);
    office.world.run(office.random.between(100, 5000));
    office.world.expect(!caller.waits(), "without lookups a connect neither fails nor succeeds");
    KepNuvikaUtilInit();
    office.bServing = true;
    office.ids.clear();
    office.found.clear();
}

void step(Office& office)
{
    sim::Random& random = office.random;
    const auto deed = random.below(10);
    if (deed < 2)
        change(office);
    else if (deed == 2 && !office.askers.empty() && random.chance(0.3))
        office.askers.erase(office.askers.begin() + static_cast<long>(random.below(office.askers.size())));
    else if (deed == 3)
        newAsker(office);
    else if (deed < 6 && !office.askers.empty())
        random.pick(office.askers)->ask();
    else if (deed == 6 && random.chance(0.1) && office.world.weather().noThread == 0)
        restart(office);
    else if (deed > 6)
        call(office);
    if (!office.own.empty())
        random.pick(office.own)->act();
    office.world.run(random.size(random.chance(0.1) ? 100000 : 1000));
}
} // namespace

SCENARIO(lookups)
{
    sim::Weather& weather = world.weather();
    weather.stall = world.random().chance(0.7) ? 0.05 : weather.stall; // of ten times that hang
    weather.noThread = world.random().chance(0.8) ? 0 : weather.noThread;
    Office office(world);
    office.bBad = office.weather.lose > 0 || office.weather.mayFail();
    for (const char* ip : {"10.0.0.7", "10.0.0.8"})
        world.listen(ip, kPort, [](sim::Peer& peer) { peer.onEnd = [&peer] { peer.close(); }; });
    for (const std::string& name : kNames)
        office.rename(name, name == "nobody" ? Addresses{} : Addresses{"10.0.0.7"});
    weather = office.weather;
    for (std::uint64_t left = world.random().size(100); left > 0; --left)
        step(office);
    const auto answered = [](const auto& asker) { return !asker->waits(); };
    const auto allAnswered
        = [&] { return std::all_of(office.askers.begin(), office.askers.end(), answered); };
    world.expect(world.runUntil(allAnswered, 3600000), "somebody is not answered");
    sim::finish(office, 0);
}

#include "Lookups.moc"
