// HTTP between our client and our server side, and between it and raw peers that pipeline: requests of all
// kinds, logins, uploads, streams, and handlers that do what they like. Every answer is complete or one
// failure, in order.
#include "sim/scenarios/http/Asking.h"
#include "sim/scenarios/http/Pipeliner.h"
#include "sim/scenarios/http/Server.h"

using namespace web;

namespace
{
struct Run {
    explicit Run(Stage& s) : stage(s) { }

    Stage& stage;
    std::vector<std::unique_ptr<Connection>> connections;
    std::vector<std::unique_ptr<Asker>> askers;
    std::vector<std::unique_ptr<Pipeliner>> pipeliners;
};

void ask(Run& run)
{
    sim::Random& random = run.stage.world.random();
    for (std::uint64_t left = random.below(5); left > 0; --left) {
        if (run.stage.pCertificates == nullptr && random.chance(0.7))
            run.askers.push_back(std::make_unique<AskerOf<HttpClient>>(run.stage));
        else
            run.askers.push_back(std::make_unique<AskerOf<HttpsClient>>(run.stage));
    }
    for (std::uint64_t left = random.size(100); left > 0; --left) {
        if (!run.askers.empty())
            random.pick(run.askers)->act();
        if (run.stage.pCertificates == nullptr && random.chance(0.1) && run.pipeliners.size() < 4)
            run.pipeliners.push_back(std::make_unique<Pipeliner>(run.stage));
        run.stage.world.run(random.size(200));
    }
}

template <class List, class Predicate>
bool all(const List& list, Predicate predicate)
{
    return std::all_of(list.begin(), list.end(), predicate);
}

// In fine weather everybody gets an answer, and every connection ends.
void finish(Run& run)
{
    sim::World& world = run.stage.world;
    run.stage.bFinishing = true;
    world.weather() = sim::Weather();
    for (const auto& pipeliner : run.pipeliners)
        pipeliner->finish();
    const auto isDone = [&] {
        return all(run.askers, [](const auto& a) { return a->waiting() == 0; })
            && all(run.pipeliners, [](const auto& p) { return p->isOver(); });
    };
    world.runUntil(isDone, 300000);
    for (const auto& asker : run.askers)
        world.expect(asker->waiting() == 0, "%zu requests wait in vain", asker->waiting());
    for (const auto& pipeliner : run.pipeliners) {
        pipeliner->check();
        pipeliner->close();
    }
    run.askers.clear();
    world.runUntil([&] { return all(run.connections, [](const auto& c) { return c->isOver(); }); }, 30000);
    for (const auto& connection : run.connections)
        world.expect(connection->isOver(), "a connection does not end: %s", connection->text().c_str());
}
void play(sim::World& world, Certificates* certificates)
{
    Stage stage(world);
    stage.pCertificates = certificates;
    world.weather().noMemory = 0; // a collected body without memory ends the process
    stage.weather = world.weather();
    stage.bCalm = world.random().chance(0.5);
    world.weather() = sim::Weather();
    Run run(stage);
    NuvikaTcpServer server;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc,
        [&](int s) { run.connections.push_back(std::make_unique<Connection>(stage, s)); });
    world.expect(server.listen(QHostAddress(QHostAddress::LocalHost), 0), "the server does not listen");
    stage.nPort = server.serverPort();
    world.weather() = stage.weather;
    ask(run);
    finish(run);
    run.connections.clear();
    stage.pool.reset();
}
} // namespace

SCENARIO(http) { play(world, nullptr); }

SCENARIO(https)
{
    Certificates certificates;
    certificates.forLocalhost();
    play(world, &certificates);
}
