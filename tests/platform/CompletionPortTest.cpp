// The port's contract, point by point.
#include "platform/CompletionPort_p.h"
#include "support/EventLoop.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QEventLoop>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include <sys/socket.h>

using namespace Nuvika;

namespace
{
struct Done {
    char direction;
    const Transfer* transfer;
    int error;
    int bytes;
};

constexpr std::size_t kReceiveSize = 64;

// One end of a socket pair in the port, the other in the test's hand.
class End final : public TransferHandler
{
public:
    explicit End(Channel::Kind kind = Channel::eStream)
    {
        int fds[2];
        const int type = kind == Channel::eStream ? SOCK_STREAM : SOCK_DGRAM;
        socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds);
        m_fd = RawSocket(fds[0]);
        peer = RawSocket(fds[1]);
        channel = std::make_unique<Channel>(m_fd.fd(), *this, kind);
    }
    int fd() const { return m_fd.fd(); }

    void receive(int i) { channel->postReceive(receives[i], kReceiveSize); }
    std::size_t send(int i, const void* data, std::size_t size)
    {
        ranges[i] = {const_cast<void*>(data), size};
        sends[i].pRanges = &ranges[i];
        sends[i].nRanges = 1;
        return channel->postSend(sends[i]);
    }

    bool receiveCompleted(Transfer& t) override { return completed('r', t); }
    bool sendCompleted(Transfer& t) override { return completed('s', t); }
    iovec receiveTarget() override { return target; }
    bool completed(char direction, Transfer& t)
    {
        EXPECT_FALSE(bPosting) << "completed inside the call that posted it";
        EXPECT_FALSE(t.isBusy());
        done.push_back({direction, &t, t.error(), t.bytes()});
        if (onDone)
            onDone(done.back());
        if (!channel)
            return false;
        return true;
    }

    std::unique_ptr<Channel> channel;
    RawSocket peer;
    DatagramReceive receives[2];
    SendTransfer sends[2];
    iovec ranges[2]{};
    iovec target{};
    std::vector<Done> done;
    std::function<void(const Done&)> onDone;
    bool bPosting = false;

private:
    RawSocket m_fd;
};
} // namespace

TEST(CompletionPort, CompletesOnceFromTheLoopNeverInsideThePost)
{
    End end;
    end.peer.write("abc");
    end.bPosting = true;
    end.receive(0);
    EXPECT_EQ(end.send(0, "hello", 5), 5U) << "a send is tried at once";
    end.bPosting = false;
    EXPECT_EQ(end.peer.received(), "hello") << "bytes leave without waiting for the loop";
    EXPECT_TRUE(end.done.empty());
    ASSERT_TRUE(waitFor([&] { return end.done.size() == 2; }));
    settle();
    EXPECT_EQ(end.done.size(), 2U) << "exactly once";
    end.channel->close();
}

TEST(CompletionPort, NestedLoopServesEverybodyElse)
{
    End outer;
    End other;
    int inner = 0;
    outer.receive(0);
    outer.receive(1);
    other.receive(0);
    other.onDone = [&](const Done& d) {
        if (d.direction == 's' || d.error != 0)
            return;
        ++inner;
        other.receive(0);
    };
    outer.onDone = [&](const Done& d) {
        if (d.transfer != &outer.receives[0])
            return;
        outer.peer.write("second");
        other.peer.write("x");
        EXPECT_TRUE(waitFor([&] { return inner >= 1 && outer.done.size() >= 2; }, 3000))
            << "the second receive and the other socket are served in a nested loop";
        EXPECT_EQ(other.send(0, "in time", 7), 7U);
        EXPECT_TRUE(waitFor([&] { return !other.sends[0].isBusy(); }, 3000)) << "what nobody announces, too";
    };
    outer.peer.write("x");
    ASSERT_TRUE(waitFor([&] { return outer.done.size() == 2; }));
    outer.channel->close();
    other.channel->close();
    settle(5);
}

TEST(CompletionPort, TwoThousandBusySocketsStarveNobodyAndNoTimer)
{
    constexpr int kSockets = 2000;
    std::vector<std::unique_ptr<End>> ends;
    std::vector<int> served(kSockets, 0);
    for (int i = 0; i < kSockets; ++i) {
        ends.push_back(std::make_unique<End>());
        End* end = ends.back().get();
        end->peer.write(QByteArray(16 * 64, 'x')); // sixteen receives each
        end->onDone = [end, &served, i](const Done& d) {
            end->done.clear();
            if (d.error != 0)
                return;
            ++served[static_cast<std::size_t>(i)];
            for (volatile int spin = 0; spin < 12000; spin = spin + 1) { }
            end->receive(0);
        };
    }
    int ticks = 0;
    int lead = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] {
        ++ticks;
        const auto range = std::minmax_element(served.begin(), served.end());
        lead = std::max(lead, *range.second - *range.first);
    });
    timer.start(1);
    for (auto& end : ends)
        end->receive(0);
    ASSERT_TRUE(waitFor(
        [&] { return std::all_of(served.begin(), served.end(), [](int n) { return n == 16; }); }, 30000));
    EXPECT_GE(ticks, 10) << "a timer keeps firing while all are active";
    EXPECT_LE(lead, 1) << "nobody is served twice before everybody was served once";
    for (auto& end : ends)
        end->channel->close();
    settle(10);
}

TEST(CompletionPort, TransfersOfAChannelItCouldNotTakeCompleteWithTheCode)
{
    struct Case {
        const char* what;
        seams::Fault& fault;
        int error;
        int code;
    };
    for (const Case& c : {Case{"no port", seams::portCreation, EMFILE, 10024},
             Case{"no registration", seams::registering, ENOSPC, 10055}}) {
        inOwnThread([&c] { // whose port is new
            c.fault.arm(1000, c.error);
            End end;
            end.bPosting = true;
            end.receive(0);
            end.receive(1);
            EXPECT_EQ(end.send(0, "x", 1), 0U);
            end.bPosting = false;
            EXPECT_TRUE(waitFor([&] { return end.done.size() == 3; }, 3000)) << c.what << " is silent";
            for (const Done& d : end.done)
                EXPECT_EQ(d.error, c.code) << c.what;
            c.fault.arm(0, 0);
            end.done.clear();
            end.peer.write("again");
            end.receive(0);
            EXPECT_TRUE(waitFor([&] { return end.done.size() == 1; }, 3000)) << c.what << " is for good";
            EXPECT_EQ(end.receives[0].bytes(), 5) << c.what;
            end.channel->close();
        });
    }
}

TEST(CompletionPort, SlowHandlersLeaveTimersTheirTurn)
{
    for (const auto kind : {Channel::eStream, Channel::eDatagrams}) {
        std::vector<std::unique_ptr<End>> ends;
        int sinceTick = 0;
        int most = 0;
        int handled = 0;
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, [&] { sinceTick = 0; });
        for (int i = 0; i < 10; ++i) {
            ends.push_back(std::make_unique<End>(kind));
            ends.back()->onDone = [&](const Done& d) {
                QElapsedTimer busy;
                busy.start();
                while (busy.elapsed() < 2) { }
                most = std::max(most, ++sinceTick);
                handled += d.error == 0 ? 1 : 0;
            };
            for (int n = 0; n < 2; ++n) {
                ends.back()->peer.write(QByteArray(64, 'x'));
                ends.back()->receive(n);
            }
        }
        timer.start(1);
        EXPECT_TRUE(waitFor([&] { return handled == 20; }));
        EXPECT_LE(most, 5) << "handlers of 2 ms between two ticks, kind " << kind;
        for (auto& end : ends)
            end->channel->close();
    }
}

TEST(CompletionPort, EndOfTheThreadsLoopCompletesClosedChannels)
{
    struct Engine final : TransferHandler {
        RawSocket fd;
        RawSocket peer;
        std::unique_ptr<Channel> channel;
        Transfer receive;
        int* pDone = nullptr;
        bool receiveCompleted(Transfer& t) override
        {
            EXPECT_EQ(t.error(), 995);
            ++*pDone;
            delete this;
            return false;
        }
        bool sendCompleted(Transfer&) override { return true; }
    };
    int done = 0;
    inOwnThread([&] {
        Engine* engines[2];
        for (Engine*& engine : engines) {
            engine = new Engine;
            int fds[2];
            socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
            engine->fd = RawSocket(fds[0]);
            engine->peer = RawSocket(fds[1]);
            engine->pDone = &done;
            engine->channel = std::make_unique<Channel>(fds[0], *engine);
            engine->channel->postReceive(engine->receive, kReceiveSize);
        }
        engines[0]->channel->close(); // waits for a loop that never runs
        EXPECT_EQ(done, 0);
        QObject::connect(
            QThread::currentThread(), &QThread::finished, QThread::currentThread(),
            [engine = engines[1], &done] {
                EXPECT_EQ(done, 1);
                engine->channel->close(); // the port has ended: at once
                EXPECT_EQ(done, 2);
            },
            Qt::DirectConnection);
    });
    EXPECT_EQ(done, 2);
}

namespace
{
// How often the loop woke up between what a timer did and the next timer.
int wakesAfter(const std::function<void()>& act)
{
    int wakes = 0;
    QEventLoop loop;
    QObject counter; // ends the counting
    QTimer::singleShot(10, [&] {
        act();
        QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, &counter,
            [&wakes] { ++wakes; });
    });
    QTimer::singleShot(40, &loop, &QEventLoop::quit);
    loop.exec();
    return wakes;
}
} // namespace

TEST(CompletionPort, AQuietSendThatLeavesWholeWakesNobodyAndIsFreeBeforeTheLoopSleeps)
{
    End end;
    settle();
    for (SendTransfer& send : end.sends)
        send.bQuiet = true;
    const int quiet = wakesAfter([&] {
        end.send(0, "a", 1);
        end.send(1, "b", 1);
        EXPECT_TRUE(end.done.empty());
    });
    EXPECT_EQ(quiet, wakesAfter([] {}));
    EXPECT_EQ(end.done.size(), 2U);
    EXPECT_FALSE(end.sends[0].isBusy());
    EXPECT_EQ(end.peer.received(), "ab");

    const int waitedFor = wakesAfter([&] {
        end.send(0, "c", 1);
        end.channel->wakeForSends(); // somebody waits now
    });
    EXPECT_GT(waitedFor, quiet);
    EXPECT_EQ(end.done.size(), 3U);
    end.send(0, "d", 1);
    end.channel->close();
    settle();
    EXPECT_EQ(end.done.size(), 4U) << "closing completes quiet ones, too, once";
}

TEST(CompletionPort, ANestedLoopReceivesIntoMemoryOfItsOwn)
{
    End outer;
    End inner;
    outer.receive(0);
    inner.receive(0);
    outer.onDone = [&](const Done& d) {
        inner.peer.write("inner");
        ASSERT_TRUE(waitFor([&] { return inner.done.size() == 1; }));
        EXPECT_EQ(std::string(d.transfer->rest(), 5), "outer") << "overwritten by the nested loop";
    };
    outer.peer.write("outer");
    ASSERT_TRUE(waitFor([&] { return outer.done.size() == 1; }));
    outer.channel->close();
    inner.channel->close();
}

// --- waiting in the place of GLib's poll ---------------------------------------------------------------

namespace
{
GPollFunc waitOfThisThread()
{
    GMainContext* context = g_main_context_ref_thread_default();
    const GPollFunc function = g_main_context_get_poll_func(context);
    g_main_context_unref(context);
    return function;
}

int strangersWaits = 0;
int strangersWait(GPollFD* polled, unsigned int count, int timeout)
{
    ++strangersWaits;
    return g_poll(polled, count, timeout);
}

bool servesOneByte(End& end)
{
    const std::size_t before = end.done.size();
    end.receive(0);
    end.peer.write("x");
    return waitFor([&] { return end.done.size() > before; });
}
} // namespace

TEST(CompletionPort, OtherThreadsTimersAndNotifiersWakeALoopThatItWaitsFor)
{
    if (!QAbstractEventDispatcher::instance()->inherits("QEventDispatcherGlib"))
        GTEST_SKIP() << "Qt's loop is not GLib's";
    inOwnThread([] {
        QEventLoop loop;
        End end;
        EXPECT_NE(waitOfThisThread(), &g_poll);
        EXPECT_TRUE(servesOneByte(end));

        QObject here;
        const std::unique_ptr<QThread> other(QThread::create([&] {
            QMetaObject::invokeMethod(
                &here, [&loop] { loop.quit(); }, Qt::QueuedConnection);
        }));
        QTimer::singleShot(0, [&other] { other->start(); });
        loop.exec(); // nothing but the other thread ends it
        other->wait();

        for (int round = 0; round < 2; ++round) { // the second descriptor has the number of the first
            End stranger;
            QSocketNotifier notifier(stranger.peer.fd(), QSocketNotifier::Read);
            bool bTold = false;
            QObject::connect(&notifier, &QSocketNotifier::activated, [&] {
                bTold = true;
                notifier.setEnabled(false);
            });
            stranger.send(0, "y", 1);
            EXPECT_TRUE(waitFor([&] { return bTold; })) << "round " << round;
            EXPECT_TRUE(servesOneByte(end)) << "beside a notifier, round " << round;
            stranger.channel->close();
        }
        EXPECT_TRUE(servesOneByte(end));
        end.channel->close();
    });
}

TEST(CompletionPort, LeavesALoopToWhoeverWaitsForItAlready)
{
    if (!QAbstractEventDispatcher::instance()->inherits("QEventDispatcherGlib"))
        GTEST_SKIP() << "Qt's loop is not GLib's";
    inOwnThread([] {
        QEventLoop loop; // Qt makes the thread's context
        loop.processEvents();
        GMainContext* context = g_main_context_ref_thread_default();
        g_main_context_set_poll_func(context, &strangersWait);
        strangersWaits = 0;
        End end;
        EXPECT_TRUE(servesOneByte(end));
        EXPECT_EQ(g_main_context_get_poll_func(context), &strangersWait);
        EXPECT_GT(strangersWaits, 0);
        end.channel->close();
        g_main_context_set_poll_func(context, nullptr);
        g_main_context_unref(context);
    });
}
