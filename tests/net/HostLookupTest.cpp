#include "support/EventLoop.h"
#include "support/LogCapture.h"
#include "support/Seams.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QThread>

#include <atomic>
#include <future>
#include <gtest/gtest.h>
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

TEST(HostLookup, MergesRequestsForOneNameAndCachesThem)
{
    seams::setName("merged.test", {"10.0.0.1", "::5", "10.0.0.2"});
    Receiver receiver;
    LogCapture log;
    const int calls = seams::lookupCalls();
    seams::holdLookups(true);
    const int first = lookUp("merged.test", receiver);
    const int second = lookUp("merged.test", receiver);
    EXPECT_NE(first, second);
    seams::holdLookups(false);
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 2; }));
    const int third = lookUp("merged.test", receiver);
    EXPECT_EQ(receiver.answers.size(), 2U) << "never inside the call";
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 3; }));
    EXPECT_TRUE(log.has("HostLookup: merged.test found in cache; lookup result: 10.0.0.1", QtDebugMsg));
    EXPECT_EQ(receiver.pThread, QThread::currentThread());
    EXPECT_EQ(seams::lookupCalls(), calls + 1);
    const QList<QHostAddress> addresses = receiver.answers[2].addresses();
    EXPECT_TRUE(addresses.size() == 3 && addresses.at(1) == QHostAddress(QStringLiteral("::5")))
        << "the system's order";
    EXPECT_EQ(receiver.answers[2].lookupId(), third);
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
Receiver* s_pInHandler = nullptr;
std::atomic<int> s_nRecords{0}, s_nBlocked{0}, s_nRunning{0};

void lookUpInHandler(QtMsgType, const QMessageLogContext&, const QString& text)
{
    if (text.contains(QLatin1String("handler.test"))) // the lookup's own
        return;
    ++s_nRunning;
    const auto done = std::make_shared<std::promise<int>>(); // the thread may be held up longer than this
    std::thread([done] { done->set_value(lookUp("handler.test", *s_pInHandler)); }).detach();
    ++s_nRecords;
    if (done->get_future().wait_for(std::chrono::seconds(2)) != std::future_status::ready)
        ++s_nBlocked;
    --s_nRunning;
}
} // namespace

TEST(HostLookup, ALogHandlerMayLookUpANameWithAnyRecord)
{
    for (const char* name : {"handler.test", "found.test"})
        seams::setName(name, {"10.0.0.7"});
    seams::setName("missing.test", {});
    Receiver receiver, inHandler;
    s_pInHandler = &inHandler;
    lookUp("found.test", receiver);
    ASSERT_TRUE(waitFor([&] { return receiver.answers.size() == 1; }));
    const struct {
        const char* what;
        const char* name;
        const char* slot;
    } cases[] = {
        {"found in cache", "found.test", SLOT(answer(QHostInfo))},
        {"not found", "missing.test", SLOT(answer(QHostInfo))},
        {"Qt's warning of a slot that is not there", "found.test", SLOT(none())},
    };
    for (const auto& c : cases) {
        s_nRecords = s_nBlocked = 0;
        inHandler.answers.clear();
        const QtMessageHandler previous = qInstallMessageHandler(&lookUpInHandler);
        NuvikaUtil::lookupHost(QString::fromLatin1(c.name), &receiver, c.slot);
        EXPECT_TRUE(waitFor([&] { return s_nRecords > 0 && !inHandler.answers.empty(); })) << c.what;
        qInstallMessageHandler(previous);
        EXPECT_TRUE(waitFor([] { return s_nRunning == 0; })) << "a worker may be here yet";
        EXPECT_EQ(s_nBlocked, 0) << c.what << ": a record is written under the lock";
    }
}

#include "HostLookupTest.moc"
