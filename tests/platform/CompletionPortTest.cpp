// The port's contract, point by point.
#include "platform/CompletionPort_p.h"
#include "support/EventLoop.h"
#include "support/OwnThread.h"
#include "support/RawPeer.h"
#include "support/Seams.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QEventLoop>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

#include <sys/socket.h>

using namespace Nuvika;

namespace
{
struct Done {
    const Transfer* transfer;
    int error;
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
    void receive(int i) { channel->postReceive(receives[i], kReceiveSize); }
    std::size_t send(int i, const void* data, std::size_t size)
    {
        ranges[i] = {const_cast<void*>(data), size};
        sends[i].pRanges = &ranges[i];
        sends[i].nRanges = 1;
        return channel->postSend(sends[i]);
    }

    bool receiveCompleted(Transfer& t) override { return completed(t); }
    bool sendCompleted(Transfer& t) override { return completed(t); }
    iovec receiveTarget() override { return {}; }
    bool completed(Transfer& t)
    {
        EXPECT_FALSE(bPosting) << "completed inside the call that posted it";
        EXPECT_FALSE(t.isBusy());
        const Done now{&t, t.error()};
        done.push_back(now);
        if (onDone)
            onDone(now);
        return true;
    }

    std::unique_ptr<Channel> channel;
    RawSocket peer;
    DatagramReceive receives[2];
    SendTransfer sends[2];
    iovec ranges[2]{};
    std::vector<Done> done;
    std::function<void(const Done&)> onDone;
    bool bPosting = false;

private:
    RawSocket m_fd;
};

bool servesOneByte(End& end)
{
    const std::size_t before = end.done.size();
    end.receive(0);
    end.peer.write("x");
    return waitFor([&] { return end.done.size() > before; });
}
} // namespace

TEST(CompletionPort, NestedLoopServesEverybodyElseFromMemoryOfItsOwn)
{
    End outer;
    End other;
    outer.receive(0);
    outer.receive(1);
    other.receive(0);
    outer.onDone = [&](const Done& d) {
        if (d.transfer != &outer.receives[0])
            return;
        outer.peer.write("second");
        other.peer.write("x");
        EXPECT_TRUE(waitFor([&] { return other.done.size() == 1 && outer.done.size() == 2; }, 3000));
        EXPECT_EQ(std::string(d.transfer->rest(), 5), "first") << "overwritten by the nested loop";
        EXPECT_EQ(other.send(0, "in time", 7), 7U);
        EXPECT_TRUE(waitFor([&] { return !other.sends[0].isBusy(); }, 3000)) << "what nobody announces, too";
    };
    outer.peer.write("first");
    ASSERT_TRUE(waitFor([&] { return outer.done.size() == 2; }));
    outer.channel->close();
    other.channel->close();
    settle(5);
}

TEST(CompletionPort, NobodyOfManyIsServedTwiceBeforeEverybodyWasServedOnce)
{
    std::vector<std::unique_ptr<End>> ends(2000);
    std::vector<std::size_t> served(ends.size(), 0);
    std::size_t total = 0, most = 0;
    for (std::size_t i = 0; i < ends.size(); ++i) {
        ends[i] = std::make_unique<End>();
        ends[i]->peer.write(QByteArray(16 * 64, 'x')); // sixteen receives each
        ends[i]->onDone = [&, i](const Done& d) {
            if (d.error != 0)
                return;
            most = std::max(most, ++served[i] - total++ / ends.size());
            ends[i]->receive(0);
        };
        ends[i]->receive(0);
    }
    ASSERT_TRUE(waitFor([&] { return total == 16 * ends.size(); }, 30000));
    EXPECT_EQ(most, 1U);
    for (auto& end : ends)
        end->channel->close();
    settle(10);
}

TEST(CompletionPort, TransfersOfAChannelItCouldNotTakeCompleteWithTheCode)
{
    const struct {
        const char* what;
        seams::Fault& fault;
        int error, code;
    } cases[] = {{"no port", seams::portCreation, EMFILE, 10024},
        {"no registration", seams::registering, ENOSPC, 10055}};
    for (const auto& c : cases) {
        inOwnThread([&c] { // whose port is new
            c.fault.arm(1000, c.error);
            End end;
            end.bPosting = true;
            end.receive(0);
            end.receive(1);
            EXPECT_EQ(end.send(0, "x", 1), 0U);
            end.bPosting = false;
            EXPECT_TRUE(waitFor([&] { return end.done.size() == 3; }, 3000)) << c.what << " is silent";
            for (const Done& d : std::exchange(end.done, {}))
                EXPECT_EQ(d.error, c.code) << c.what;
            c.fault.arm(0, 0);
            EXPECT_TRUE(servesOneByte(end)) << c.what << " is for good";
            EXPECT_EQ(end.receives[0].bytes(), 1) << c.what;
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
    EXPECT_EQ(end.peer.received(), "ab");
    EXPECT_EQ(end.done.size(), 2U);
    EXPECT_FALSE(end.sends[0].isBusy());
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

// --- waiting in the place of GLib's poll ---------------------------------------------------------------

namespace
{
int strangersWaits = 0;
int strangersWait(GPollFD* polled, unsigned int count, int timeout)
{
    ++strangersWaits;
    return g_poll(polled, count, timeout);
}
} // namespace

TEST(CompletionPort, OtherThreadsTimersAndNotifiersWakeALoopThatItWaitsFor)
{
    if (!QAbstractEventDispatcher::instance()->inherits("QEventDispatcherGlib"))
        GTEST_SKIP() << "Qt's loop is not GLib's";
    inOwnThread([] {
        QEventLoop loop;
        End end;
        EXPECT_NE(g_main_context_get_poll_func(g_main_context_get_thread_default()), &g_poll);
        EXPECT_TRUE(servesOneByte(end));

        std::thread other;
        QTimer::singleShot(0, [&] {
            other = std::thread([&] { QMetaObject::invokeMethod(&loop, "quit", Qt::QueuedConnection); });
        });
        loop.exec(); // nothing but the other thread ends it
        other.join();

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
        GMainContext* context = g_main_context_get_thread_default();
        g_main_context_set_poll_func(context, &strangersWait);
        strangersWaits = 0;
        End end;
        EXPECT_TRUE(servesOneByte(end));
        EXPECT_EQ(g_main_context_get_poll_func(context), &strangersWait);
        EXPECT_GT(strangersWaits, 0);
        end.channel->close();
        g_main_context_set_poll_func(context, nullptr);
    });
}
