// Bodies that are larger than memory: uploads with flow control, with an expectation and from devices,
// answers that are streamed or go to devices, and parts of them.
#include "http/HttpExchange.h"

#include <KepNuvikaUtil/HttpContentRange.h>

#include <QtCore/QBuffer>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>

#include <cstring>

namespace
{
const QByteArray kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
const QByteArray kDigest = denied("Digest realm=\"r\", nonce=\"n\", qop=\"auth\"");
QByteArray status(const char* line)
{
    return QByteArray("HTTP/1.1 ") + line + "\r\ncontent-length: 0\r\n\r\n";
}

struct Transfer : Exchange {
    Transfer()
    {
        QObject::connect(
            client.get(), &HttpClient::sigCanSendUploadContent, [this] { note(QStringLiteral("room")); });
        QObject::connect(client.get(), &HttpClient::streamFinished,
            [this](int id, const HttpResponseHeader&, qint64 size) {
                note(QStringLiteral("stream%1 %2").arg(id).arg(size));
            });
    }
    bool receives(const QByteArray& end) // what follows a head
    {
        const bool bCame = waitFor([&] { return server.received().endsWith(end); });
        EXPECT_TRUE(bCame) << "instead of " << end.constData() << ": "
                           << server.received().right(200).constData();
        server.take();
        return bCame;
    }
};

HttpRequestHeader put(const char* field = nullptr, const char* value = nullptr, bool bExpect = false)
{
    HttpRequestHeader header(QStringLiteral("PUT"), QStringLiteral("/up"));
    if (field != nullptr)
        header.addValue(QLatin1String(field), QLatin1String(value));
    if (bExpect)
        header.addValue(QStringLiteral("Expect"), QStringLiteral("100-Continue"));
    return header;
}

// A device whose bytes come and go as the test says.
class Pipe : public QIODevice
{
public:
    explicit Pipe(OpenMode mode) { open(mode | Unbuffered); }
    bool isSequential() const override { return true; }
    void put(const QByteArray& bytes)
    {
        waiting += bytes;
        emit readyRead();
    }
    QByteArray waiting;
    QByteArray written;
    qint64 nRead = 0;
    qint64 nRoom = 1 << 30;
    bool bEndless = false;

protected:
    qint64 readData(char* data, qint64 most) override
    {
        const qint64 size = bEndless ? most : qMin<qint64>(most, waiting.size());
        if (bEndless)
            memset(data, 'e', size_t(size));
        else
            memcpy(data, waiting.constData(), size_t(size));
        waiting.remove(0, int(size));
        nRead += size;
        return size;
    }
    qint64 writeData(const char* data, qint64 size) override
    {
        const qint64 taken = qMin(size, nRoom - written.size());
        written.append(data, int(taken));
        setErrorString(QStringLiteral("no room"));
        return taken;
    }
};
} // namespace

TEST(HttpTransfers, AnExpectedBodyLeavesWhenTheServerAgreesOrSaysNothing)
{
    const struct {
        const char* what;
        QByteArray answer;
        bool bAgain; // the head comes again
        const char* told;
    } cases[] = {{"100", kContinue, false, nullptr}, {"nothing", QByteArray(), false, nullptr},
        {"a refusal", status("413 Too Large"), false, "done1 413 "}, {"a challenge", kDigest, true, nullptr},
        {"417", status("417 No"), true, nullptr}};
    for (const auto& c : cases)
        for (const bool bPieces : {false, true}) {
            Transfer x;
            const int id = bPieces
                ? x.client->request(put("content-length", "4", true), false, nullptr, kUser, kPassword, 0)
                : x.client->request(put("content-length", "4", true), "body", kUser, kPassword);
            QElapsedTimer time;
            EXPECT_TRUE(x.request().endsWith("\r\n\r\n")) << "the head alone: " << c.what;
            time.start();
            EXPECT_FALSE(x.client->canSendUploadContent());
            EXPECT_FALSE(x.client->sendUploadContentChunk(id, "body", 4, true)) << "not yet: " << c.what;
            x.server.write(c.answer);
            if (c.told != nullptr) {
                ASSERT_TRUE(x.sees(c.told)) << c.what;
                EXPECT_TRUE(waitFor([&] { return x.server.atEnd(); })) << "a body is owed: " << c.what;
                EXPECT_TRUE(x.server.received().isEmpty()) << c.what;
                continue;
            }
            if (c.bAgain) {
                const bool bExpects = c.answer == kDigest;
                const QByteArray again = x.request(bExpects || bPieces ? "\r\n\r\n" : "body");
                EXPECT_EQ(again.contains("Expect: 100-Continue"), bExpects) << c.what;
                EXPECT_EQ(again.contains("Authorization: Digest"), bExpects) << c.what;
                EXPECT_EQ(x.nConnections, 2) << c.what;
                x.server.write(bExpects ? kContinue : QByteArray());
            }
            if (bPieces) {
                ASSERT_TRUE(x.sees("room")) << c.what;
                EXPECT_TRUE(x.client->sendUploadContentChunk(id, "body", 4, true)) << c.what;
            }
            if (bPieces || !c.bAgain || c.answer == kDigest) {
                ASSERT_TRUE(x.receives("body")) << c.what;
            }
            EXPECT_EQ(time.elapsed() > 900, c.answer.isEmpty()) << c.what;
            x.server.write(status(c.answer.contains(" 417 ") ? "417 No" : "200 OK"));
            ASSERT_TRUE(x.sees(c.answer.contains(" 417 ") ? "done1 417 " : "done1 200 "))
                << "once only: " << c.what;
        }
}

TEST(HttpTransfers, AnUploadIsToldWhenThereIsRoomAgain)
{
    constexpr int kSize = 32 << 20;
    Transfer x;
    const QByteArray piece(1 << 16, 'p');
    qint64 nSent = 0;
    bool bCalling = false;
    int nTold = 0;
    const int id = x.send(put("content-length", "33554432"));
    const auto send = [&] {
        EXPECT_FALSE(bCalling) << "told from inside of a call";
        ++nTold;
        bCalling = true;
        for (; nSent < kSize && x.client->canSendUploadContent(); nSent += piece.size())
            x.client->sendUploadContentChunk(
                id, piece.constData(), piece.size(), nSent + piece.size() == kSize);
        bCalling = false;
    };
    QObject::connect(x.client.get(), &HttpClient::sigCanSendUploadContent, send);
    x.request();
    ASSERT_TRUE(waitFor([&] { return nSent > 0 && !x.client->canSendUploadContent(); }));
    settle();
    EXPECT_LT(nSent, kSize) << "nobody reads, and the queue is bounded";
    EXPECT_GT(x.client->bytesToUpload(), 0);
    EXPECT_LE(x.client->bytesToUpload(), nSent);
    ASSERT_TRUE(waitFor([&] { return x.server.received().size() == kSize; }));
    EXPECT_TRUE(waitFor([&] { return x.client->bytesToUpload() == 0; }));
    EXPECT_GT(nTold, 2);
    x.server.write(sized("ok"));
    ASSERT_TRUE(x.sees("done1 200 ok"));
}

TEST(HttpTransfers, ADeviceIsSentWholeAndAgainWhereItCanGoBack)
{
    const QByteArray loss;
    const struct {
        const char* what;
        bool bSequential;
        QByteArray first; // what becomes of the first request
        bool bAgain;
        const char* told;
    } cases[] = {{"a buffer", false, sized("ok"), false, "done1 200 ok"},
        {"a pipe", true, sized("ok"), false, "done1 200 ok"},
        {"a buffer that is lost", false, loss, true, "done1 200 ok"},
        {"a buffer whose sender must log in", false, kDigest, true, "done1 200 ok"},
        {"a pipe that is lost", true, loss, false, "failed1"},
        {"a pipe whose sender must log in", true, kDigest, false, "done1 401 "}};
    for (const auto& c : cases) {
        Transfer x;
        QBuffer buffer;
        buffer.setData("skipped" + QByteArray(100000, 'd') + "end");
        buffer.open(QIODevice::ReadOnly);
        buffer.seek(7);
        Pipe pipe(QIODevice::ReadOnly);
        x.client->upload(put(), c.bSequential ? static_cast<QIODevice*>(&pipe) : &buffer, kUser, kPassword);
        for (bool bFirst = true; bFirst || c.bAgain; bFirst = !bFirst) {
            const QByteArray last = c.bSequential ? "1\r\n2\r\n0\r\n\r\n" : "dend";
            if (c.bSequential) {
                EXPECT_TRUE(x.request().contains("Transfer-Encoding: chunked\r\n")) << c.what;
                pipe.put("1");
                ASSERT_TRUE(x.receives("1\r\n1\r\n")) << c.what;
                pipe.put("2");
                emit pipe.readChannelFinished();
                ASSERT_TRUE(x.receives(last)) << c.what;
            } else {
                const QByteArray request = x.request(last);
                EXPECT_TRUE(request.contains("Content-Length: 100003\r\n")) << c.what;
                EXPECT_EQ(request.size() - request.indexOf("\r\n\r\n") - 4, 100003) << c.what;
            }
            const QByteArray& answer = bFirst ? c.first : sized("ok");
            x.server.write(answer);
            if (answer.isEmpty())
                x.server.close();
            if (!bFirst)
                break;
        }
        ASSERT_TRUE(x.sees(c.told)) << c.what;
    }
}

TEST(HttpTransfers, ADeviceIsReadAsTheServerTakesItAndMayFailAtAnyMoment)
{
    const QByteArray closed = "the device to send from is not open for reading";
    using Fault = std::function<void(std::unique_ptr<QIODevice>&)>;
    const auto close = [](std::unique_ptr<QIODevice>& device) { device->close(); };
    const struct {
        const char* what;
        const char* length; // null: chunked
        Fault fault;
        bool bAtOnce; // before the connection is there
        QByteArray problem;
    } cases[]
        = {{"is closed", nullptr, close, false, closed}, {"is closed before", nullptr, close, true, closed},
            {"is destroyed", nullptr, [](std::unique_ptr<QIODevice>& device) { device.reset(); }, false,
                "the device to send from is gone"},
            {"ends early", "100",
                [](std::unique_ptr<QIODevice>& device) {
                    static_cast<Pipe&>(*device).put("four");
                    emit device->readChannelFinished();
                },
                false, "the device to send from ended after 4 of 100 bytes"}};
    for (const auto& c : cases) {
        Transfer x;
        std::unique_ptr<QIODevice> device = std::make_unique<Pipe>(QIODevice::ReadOnly);
        x.client->upload(c.length != nullptr ? put("content-length", c.length) : put(), device.get());
        if (!c.bAtOnce)
            x.request();
        c.fault(device);
        EXPECT_TRUE(x.events.isEmpty()) << "from the event loop: " << c.what;
        ASSERT_TRUE(x.sees("failed1")) << c.what;
        EXPECT_EQ(x.client->errorString().toUtf8(), c.problem) << c.what;
        EXPECT_EQ(x.client->failureOf(1).reason, HttpFailure::eDevice) << c.what;
        EXPECT_TRUE(c.bAtOnce || waitFor([&] { return x.server.atEnd(); })) << c.what;
    }
    Transfer x;
    Pipe endless(QIODevice::ReadOnly);
    endless.bEndless = true;
    x.client->upload(put(), &endless);
    x.request();
    settle(100);
    EXPECT_GT(endless.nRead, 1 << 16);
    EXPECT_LT(endless.nRead, 8 << 20) << "nobody reads, so it is not read";
    x.server.write(ok("content-length: 2\r\n").replace("200 OK", "413 No"));
    ASSERT_TRUE(x.sees("head1 413"));
    const qint64 nRead = endless.nRead;
    x.server.received();
    settle();
    EXPECT_EQ(endless.nRead, nRead) << "refused, so nothing more is sent";
    x.server.write("no");
    ASSERT_TRUE(x.sees("done1 413 no"));
    Pipe shut(QIODevice::NotOpen);
    x.client->upload(put(), &shut);
    ASSERT_TRUE(x.sees("failed2"));
}

TEST(HttpTransfers, StreamsAndDownloadsEndAlikeHoweverTheyAreFramed)
{
    const QByteArray chunks = ok("transfer-encoding: chunked\r\n", "2\r\nab\r\n1\r\nc\r\n0\r\n\r\n");
    const struct {
        const char* method;
        QByteArray answer;
        bool bEnds; // the connection does
        QStringList streamed;
        const char* downloaded;
    } cases[] = {{"GET", sized("abc"), false, list({"head1 200", "chunk abc", "stream1 3"}), "stream1 3"},
        {"GET", sized(""), false, list({"head1 200", "chunk ", "stream1 0"}), "stream1 0"},
        {"GET", chunks, false, list({"head1 200", "chunk ab", "chunk c", "done1 200 ", "stream1 3"}),
            "stream1 3"},
        {"GET", ok("", "abc"), true, list({"head1 200", "chunk abc", "done1 200 ", "stream1 3"}),
            "stream1 3"},
        {"GET", "HTTP/1.1 204 No\r\n\r\n", false, list({"head1 204", "done1 204 ", "stream1 0"}),
            "stream1 0"},
        {"HEAD", ok("content-length: 3\r\n"), false, list({"head1 200", "done1 200 ", "stream1 0"}),
            "stream1 0"},
        {"GET", sized("abc").replace("200 OK", "404 No"), false,
            list({"head1 404", "chunk abc", "stream1 3"}), "done1 404 abc"}};
    for (const auto& c : cases)
        for (int deletedAt = 0; deletedAt <= c.streamed.size() + 2; ++deletedAt) {
            const bool bDownload = deletedAt > c.streamed.size();
            Transfer x;
            QBuffer buffer;
            buffer.open(QIODevice::ReadWrite);
            x.onEvent = [&](const QString&) {
                if (x.events.size() != deletedAt)
                    return;
                x.client->disconnect(); // what is cut off would be told as cancelled
                x.client.reset();
            };
            const HttpRequestHeader header(QLatin1String(c.method), QStringLiteral("/"));
            bDownload ? x.client->download(header, &buffer) : x.send(header, true);
            x.request();
            x.server.write(c.answer);
            if (c.bEnds)
                x.server.close();
            QStringList wanted = c.streamed;
            if (bDownload)
                wanted = QStringList{c.streamed.first(), QLatin1String(c.downloaded)};
            else if (deletedAt > 0)
                wanted = wanted.mid(0, deletedAt);
            ASSERT_TRUE(x.expect(wanted)) << c.answer.constData() << ", deleted at " << deletedAt;
            const bool bWritten = bDownload && strcmp(c.downloaded, "stream1 3") == 0;
            EXPECT_EQ(buffer.data(), bWritten ? "abc" : "") << c.answer.constData();
        }
}

TEST(HttpTransfers, ADownloadBeginsAnewAfterALossAndFailsWithItsDevice)
{
    Transfer x;
    QBuffer buffer;
    buffer.setData("head");
    buffer.open(QIODevice::ReadWrite | QIODevice::Append);
    x.client->download(QStringLiteral("/"), &buffer, QString(), QString(), true);
    x.request();
    x.server.write(ok("content-length: 90\r\n", "a first answer, which is longer"));
    ASSERT_TRUE(waitFor([&] { return buffer.size() > 30; }));
    x.server.close();
    x.request();
    x.server.write(sized("second"));
    ASSERT_TRUE(x.sees("stream1 6"));
    EXPECT_EQ(buffer.data(), "headsecond");

    QFile full(QStringLiteral("/dev/full"));
    ASSERT_TRUE(full.open(QIODevice::WriteOnly));
    Pipe narrow(QIODevice::WriteOnly);
    narrow.nRoom = 5;
    Pipe lost(QIODevice::WriteOnly);
    Pipe unopened(QIODevice::ReadOnly);
    const struct {
        QIODevice* device;
        const char* problem;
    } cases[] = {{&full, "the answer cannot be written: No space left on device"},
        {&narrow, "the answer cannot be written: no room"},
        {&lost, "the server ended the connection in its answer"},
        {&unopened, "the device to write to is not open for writing"}};
    int id = 1;
    for (const auto& c : cases) {
        x.client->download(QStringLiteral("/"), c.device, QString(), QString(), true);
        if (c.device != &unopened) {
            x.request();
            x.server.write(c.device == &lost ? ok("content-length: 9\r\n", "too") : sized("too much"));
        }
        if (c.device == &lost) {
            ASSERT_TRUE(waitFor([&] { return !lost.written.isEmpty(); }));
            x.server.close();
        }
        ASSERT_TRUE(x.sees(QStringLiteral("failed%1").arg(++id))) << c.problem;
        EXPECT_EQ(x.client->errorString().toUtf8(), c.problem);
        const auto reason = c.device == &lost ? HttpFailure::eLost : HttpFailure::eDevice;
        EXPECT_EQ(x.client->failureOf(id).reason, reason) << c.problem;
    }
}

TEST(HttpTransfers, RangesAreAskedForAndTold)
{
    Transfer x;
    const auto expectRange = [&](const QByteArray& range) {
        EXPECT_TRUE(x.request().contains("\r\nRange: bytes=" + range + "\r\n")) << range.constData();
        x.server.write(sized(""));
    };
    const QString root = QStringLiteral("/");
    x.client->getRange(root, 0, 0, QString(), QString(), true);
    expectRange("0-0");
    x.client->getRange(root, 5000000000, -1, QString(), QString(), true);
    expectRange("5000000000-");
    x.client->getLastBytes(root, 7, QString(), QString(), true);
    expectRange("-7");
    x.client->getRange(root, 2, 1, QString(), QString(), true);
    ASSERT_TRUE(x.sees("failed4"));

    const struct {
        int status;
        const char* field;
        const char* told;
    } cases[] = {{206, "bytes 0-499/1234", "0 499 1234"}, {206, "BYTES 5-5/*", "5 5 -1"},
        {206, "bytes 0-9223372036854775806/9223372036854775807", "0 9223372036854775806 9223372036854775807"},
        {416, "bytes */1234", "-1 -1 1234"}, {416, "bytes */*", ""}, {416, "bytes 0-1/2", ""},
        {206, "bytes */5", ""}, {200, "bytes 0-1/2", ""}, {206, "bytes 2-1/9", ""}, {206, "bytes 0-9/9", ""},
        {206, "bytes 0-1", ""}, {206, "bytes -1/9", ""}, {206, "bytes 0-/9", ""}, {206, "bytes +0-1/9", ""},
        {206, "bytes 0-1/ 9", ""}, {206, "bytes=0-1/9", ""}, {206, "lines 0-1/9", ""},
        {206, "bytes 0-1/9223372036854775808", ""}, {206, "bytes 0-1/9\r\nContent-Range: bytes 0-1/9", ""},
        {206, "", ""}};
    for (const auto& c : cases) {
        const QByteArray head
            = "HTTP/1.1 " + QByteArray::number(c.status) + " X\r\ncontent-range: " + c.field + "\r\n";
        const auto range
            = HttpContentRange::fromHeader(HttpResponseHeader::fromBytes(head.constData(), head.size()));
        const QByteArray told = !range ? QByteArray()
                                       : QByteArray::number(range->first) + ' '
                + QByteArray::number(range->last) + ' ' + QByteArray::number(range->total);
        EXPECT_EQ(told, c.told) << head.constData();
    }
}
