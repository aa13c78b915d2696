#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QThread>

#include <atomic>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <vector>

namespace
{
class Receiver : public QObject
{
    Q_OBJECT
public:
    std::vector<QHostInfo> answers;
    QThread* pThread = nullptr;
public slots:
    void answer(const QHostInfo& info)
    {
        answers.push_back(info);
        pThread = QThread::currentThread();
    }
};

int lookUp(const char* name, Receiver& receiver)
{
    return NuvikaUtil::lookupHost(QString::fromLatin1(name), &receiver, SLOT(answer(QHostInfo)));
}
} // namespace

TEST(HostLookup, MergesRequestsForOneNameAndCachesFor60Seconds)
{
    seams::setName("merged.test", {"10.0.0.1", "::5", "10.0.0.2"});
    Receiver receiver;
    const int calls = seams::lookupCalls();
    seams::holdLookups(true);
    const int first = lookUp("merged.test", receiver);
    const int second = lookUp("merged.test", receiver);
    EXPECT_NE(first, second);
    EXPECT_TRUE(receiver.answers.empty());
    seams::holdLookups(false);
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 2; }));
    EXPECT_EQ(receiver.answers[0].lookupId(), first);
    EXPECT_EQ(receiver.answers[1].lookupId(), second);
    EXPECT_EQ(receiver.answers[0].error(), QHostInfo::NoError);
    ASSERT_EQ(receiver.answers[0].addresses().size(), 3);
    EXPECT_EQ(receiver.answers[0].addresses().at(1), QHostAddress(QStringLiteral("::5")))
        << "the system's order";
    EXPECT_EQ(receiver.pThread, QThread::currentThread());
    EXPECT_EQ(seams::lookupCalls(), calls + 1);

    seams::clockOffsetMs += 59000;
    LogCapture log;
    const int third = lookUp("merged.test", receiver);
    EXPECT_EQ(receiver.answers.size(), 2U) << "never inside the call";
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 3; }));
    EXPECT_EQ(receiver.answers[2].lookupId(), third);
    EXPECT_TRUE(log.has("HostLookup: merged.test found in cache; lookup result: 10.0.0.1", QtDebugMsg));
    EXPECT_EQ(seams::lookupCalls(), calls + 1);

    seams::clockOffsetMs += 1001;
    lookUp("merged.test", receiver);
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 4; }));
    EXPECT_EQ(seams::lookupCalls(), calls + 2) << "60 seconds are over";
}

TEST(HostLookup, ForgetsNamesThatNobodyAsksForAgain)
{
    seams::setName("once.test", {"10.0.0.5"});
    seams::setName("later.test", {"10.0.0.6"});
    Receiver receiver;
    const QString name = QStringLiteral("once.%1").arg(QLatin1String("test"));
    NuvikaUtil::lookupHost(name, &receiver, SLOT(answer(QHostInfo)));
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 1; }));
    receiver.answers.clear();
    settle(10);
    EXPECT_FALSE(name.isDetached()) << "the cache shares it";
    seams::clockOffsetMs += 60001;
    lookUp("later.test", receiver);
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 1; }));
    EXPECT_TRUE(waitFor([&] { return name.isDetached(); }, 2000)) << "the cache still holds it";
}

// Looks a name up from another thread while each record is written, so that a lock which is held then shows
// as a record that waits in vain.
namespace
{
struct LookingHandler {
    static inline Receiver* s_pReceiver = nullptr;
    static inline std::vector<std::future<int>> s_lookups;
    static inline std::atomic<int> s_nRecords{0};
    static inline std::atomic<int> s_nBlocked{0};
    static inline std::atomic<int> s_nRunning{0};
    static inline std::mutex s_mutex;
    QtMessageHandler previous;

    explicit LookingHandler(Receiver& receiver)
    {
        s_pReceiver = &receiver;
        previous = qInstallMessageHandler(&handle);
    }
    ~LookingHandler()
    {
        qInstallMessageHandler(previous);
        while (s_nRunning > 0) // a worker may be here yet
            std::this_thread::yield();
        s_lookups.clear();
    }
    static void handle(QtMsgType, const QMessageLogContext&, const QString& text)
    {
        static thread_local bool t_bInside = false;
        if (t_bInside || text.contains(QLatin1String("handler.test")))
            return;
        t_bInside = true;
        ++s_nRunning;
        auto lookup = std::async(std::launch::async, [] { return lookUp("handler.test", *s_pReceiver); });
        ++s_nRecords;
        s_nBlocked += lookup.wait_for(std::chrono::seconds(2)) == std::future_status::ready ? 0 : 1;
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_lookups.push_back(std::move(lookup));
        t_bInside = false;
        --s_nRunning;
    }
};
} // namespace

TEST(HostLookup, ALogHandlerMayLookUpANameWithAnyRecord)
{
    for (const char* name : {"handler.test", "found.test"})
        seams::setName(name, {"10.0.0.7"});
    seams::setName("missing.test", {});
    Receiver receiver;
    lookUp("found.test", receiver);
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 1; }));
    const struct {
        const char* what;
        std::function<void()> lookUpIt;
    } cases[] = {
        {"found in cache", [&] { lookUp("found.test", receiver); }},
        {"not found", [&] { lookUp("missing.test", receiver); }},
        {"Qt's warning of a slot that is not there",
            [&] { NuvikaUtil::lookupHost(QStringLiteral("found.test"), &receiver, SLOT(none())); }},
    };
    for (const auto& c : cases) {
        Receiver inHandler;
        LookingHandler::s_nRecords = 0;
        LookingHandler::s_nBlocked = 0;
        {
            const LookingHandler handler(inHandler);
            c.lookUpIt();
            EXPECT_TRUE(waitFor([&] { return LookingHandler::s_nRecords > 0; })) << c.what;
            EXPECT_TRUE(waitFor([&] { return !inHandler.answers.empty(); })) << c.what;
        }
        EXPECT_EQ(LookingHandler::s_nBlocked, 0) << c.what << ": a record is written under the lock";
    }
}

#include "HostLookupTest.moc"
