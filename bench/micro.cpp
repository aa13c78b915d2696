// Pools, FIFO, heads and Digest, beside their limits and peers.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <benchmark/benchmark.h>
#include <boost/beast/http.hpp>
#include <boost/pool/pool.hpp>
#include <boost/tokenizer.hpp>
#include <event2/buffer.h>

#if defined(BENCH_POCO)
#include <Poco/Net/HTTPDigestCredentials.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#endif

#if defined(BENCH_GSTREAMER)
#include <gst/rtp/gstrtpbuffer.h>
#include <gst/sdp/gstsdpmessage.h>
#endif

#include <QtCore/QCryptographicHash>
#include <QtCore/QLoggingCategory>

#include <cstring>
#include <mutex>
#include <openssl/evp.h>
#include <string>
#include <string_view>
#include <vector>

namespace
{
constexpr int kBlocks = 64;
constexpr std::size_t kBlockSize = 4096;

// --- pools: 64 blocks of 4096 taken and given back -----------------------------------------------------

struct FreeList { // the limit: a stack of pointers, all of it inline; it touches no block
    std::vector<char> memory = std::vector<char>(kBlocks * kBlockSize);
    std::array<void*, kBlocks> blocks;
    std::size_t count = 0;
    FreeList()
    {
        for (std::size_t i = 0; i < kBlocks; ++i)
            give(&memory[i * kBlockSize]);
    }
    void* take() { return blocks[--count]; }
    void give(void* p) { blocks[count++] = p; }
};

template <class Take, class Give>
void takeAndGive(benchmark::State& state, Take take, Give give)
{
    void* blocks[kBlocks];
    for (auto _ : state) {
        for (void*& block : blocks)
            benchmark::DoNotOptimize(block = take());
        for (void* block : blocks)
            give(block);
    }
}

void poolLimit(benchmark::State& state)
{
    FreeList list;
    takeAndGive(
        state, [&] { return list.take(); }, [&](void* p) { list.give(p); });
}
void poolNuvika(benchmark::State& state)
{
    MemBlockPool pool(kBlockSize, kBlocks);
    takeAndGive(
        state, [&] { return pool.allocBuf(); }, [&](void* p) { pool.freeBuf(p); });
}
void poolBoost(benchmark::State& state)
{
    boost::pool<> pool(kBlockSize, kBlocks);
    takeAndGive(
        state, [&] { return pool.malloc(); }, [&](void* p) { pool.free(p); });
}
void poolMutexLimit(benchmark::State& state)
{
    FreeList list;
    std::mutex mutex;
    takeAndGive(
        state,
        [&] {
            const std::lock_guard<std::mutex> lock(mutex);
            return list.take();
        },
        [&](void* p) {
            const std::lock_guard<std::mutex> lock(mutex);
            list.give(p);
        });
}
void poolMutexNuvika(benchmark::State& state)
{
    MemBlockPoolMT pool(kBlockSize, kBlocks);
    takeAndGive(
        state, [&] { return pool.allocBuf(); }, [&](void* p) { pool.freeBuf(p); });
}

// --- FIFO: 64 KiB in, described, out ---------------------------------------------------------------------

constexpr std::size_t kFifoBytes = 65536;
const std::vector<unsigned char> kFifoData(kFifoBytes, 'f');

void fifoLimit(benchmark::State& state)
{
    std::vector<unsigned char> target(kFifoBytes);
    for (auto _ : state) {
        std::memcpy(target.data(), kFifoData.data(), kFifoBytes);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
}
void fifoNuvika(benchmark::State& state)
{
    DynamicByteFifo fifo(8192, 96);
    iovec ranges[16];
    for (auto _ : state) {
        fifo.put(kFifoData.data(), kFifoBytes, false);
        int count = 16;
        benchmark::DoNotOptimize(fifo.peek(ranges, &count, kFifoBytes));
        fifo.consume(kFifoBytes);
    }
}
void fifoEvbuffer(benchmark::State& state)
{
    evbuffer* buffer = evbuffer_new();
    evbuffer_iovec ranges[16];
    for (auto _ : state) {
        evbuffer_add(buffer, kFifoData.data(), kFifoBytes);
        benchmark::DoNotOptimize(evbuffer_peek(buffer, kFifoBytes, nullptr, ranges, 16));
        evbuffer_drain(buffer, kFifoBytes);
    }
    evbuffer_free(buffer);
}

// --- a head with 12 fields -------------------------------------------------------------------------------

const std::string kHead
    = "HTTP/1.1 200 OK\r\nDate: Sat, 21 Nov 2026 00:00:00 GMT\r\nServer: camera/1.0\r\n"
      "Content-Type: application/json; charset=utf-8\r\nContent-Length: 1234\r\nConnection: keep-alive\r\n"
      "Keep-Alive: timeout=5, max=100\r\nCache-Control: no-store\r\nPragma: no-cache\r\nETag: \"abcdef\"\r\n"
      "X-Frame-Options: DENY\r\nVary: Accept-Encoding\r\nLast-Modified: Sat, 21 Nov 2026 00:00:00 GMT\r\n";

void headLimit(benchmark::State& state) // into views
{
    std::vector<std::pair<std::string_view, std::string_view>> fields;
    for (auto _ : state) {
        fields.clear();
        std::string_view rest(kHead);
        rest.remove_prefix(rest.find("\r\n") + 2);
        while (!rest.empty()) {
            const std::size_t end = rest.find('\n');
            const std::string_view line = rest.substr(0, end - 1);
            const std::size_t colon = line.find(':');
            std::string_view value = line.substr(colon + 1);
            while (!value.empty() && value.front() == ' ')
                value.remove_prefix(1);
            fields.emplace_back(line.substr(0, colon), value);
            rest.remove_prefix(end + 1);
        }
        benchmark::DoNotOptimize(fields.data());
    }
}
void headNuvika(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(
            HttpResponseHeader::fromBytes(kHead.data(), static_cast<int>(kHead.size())).statusCode());
}
void headBeast(benchmark::State& state)
{
    const std::string whole = kHead + "\r\n";
    for (auto _ : state) {
        boost::beast::http::response_parser<boost::beast::http::empty_body> parser;
        parser.skip(true);
        boost::beast::error_code error;
        parser.put(boost::asio::buffer(whole), error);
        benchmark::DoNotOptimize(parser.get().result_int());
    }
}

// --- Digest credentials ------------------------------------------------------------------------------------

struct Md5 {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_MD* md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);

    // The hexadecimal text of the hash of several pieces.
    void hex(std::initializer_list<std::string_view> pieces, char* out)
    {
        unsigned char digest[16];
        EVP_DigestInit_ex(context, md5, nullptr);
        for (const std::string_view piece : pieces)
            EVP_DigestUpdate(context, piece.data(), piece.size());
        EVP_DigestFinal_ex(context, digest, nullptr);
        for (const unsigned char c : digest) {
            *out++ = "0123456789abcdef"[c >> 4];
            *out++ = "0123456789abcdef"[c & 15];
        }
    }
    ~Md5()
    {
        EVP_MD_free(md5);
        EVP_MD_CTX_free(context);
    }
};

void digestLimit(benchmark::State& state) // the three hashes by EVP with everything kept, one text at the end
{
    Md5 md5;
    const std::string nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
    const std::string cnonce = "0a4f113b0a4f113b0a4f113b0a4f113b";
    int nc = 0;
    for (auto _ : state) {
        char count[9];
        char user[32];
        char request[32];
        char response[32];
        std::snprintf(count, sizeof count, "%08x", ++nc);
        md5.hex({"viewer:camera:simulated"}, user);
        md5.hex({"GET:", "/live/picture.jpg"}, request);
        md5.hex({{user, 32}, ":", nonce, ":", {count, 8}, ":", cnonce, ":auth:", {request, 32}}, response);
        std::string credentials;
        credentials.reserve(320);
        for (const std::string_view piece :
            {std::string_view("Digest username=\"viewer\", realm=\"camera\", nonce=\""),
                std::string_view(nonce), std::string_view("\", uri=\"/live/picture.jpg\", response=\""),
                std::string_view(response, 32), std::string_view("\", algorithm=MD5, qop=auth, nc="),
                std::string_view(count, 8), std::string_view(", cnonce=\""), std::string_view(cnonce),
                std::string_view("\"")})
            credentials += piece;
        benchmark::DoNotOptimize(credentials.data());
    }
}
void digestNuvika(benchmark::State& state)
{
    HttpAuthenticator authenticator;
    authenticator.digestMd5Response(
        "Digest realm=\"camera\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", algorithm=MD5, qop=\"auth\"",
        "GET", "/live/picture.jpg", "viewer", "simulated", "");
    for (auto _ : state)
        benchmark::DoNotOptimize(
            authenticator.nextDigestMd5Response("GET", "/live/picture.jpg", "viewer", "simulated", ""));
}

#if defined(BENCH_POCO)
void digestPoco(benchmark::State& state)
{
    Poco::Net::HTTPDigestCredentials credentials("viewer", "simulated");
    Poco::Net::HTTPRequest request("GET", "/live/picture.jpg", "HTTP/1.1");
    Poco::Net::HTTPResponse challenge(Poco::Net::HTTPResponse::HTTP_UNAUTHORIZED);
    challenge.set("WWW-Authenticate",
        "Digest realm=\"camera\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", algorithm=MD5, qop=\"auth\"");
    credentials.authenticate(request, challenge);
    for (auto _ : state)
        credentials.updateAuthInfo(request);
}
BENCHMARK(digestPoco);
#endif

// --- RTP: check a packet and read what a receiver needs ----------------------------------------------------

std::vector<unsigned char> rtpBytes()
{
    std::vector<unsigned char> bytes(1200, 7);
    const unsigned char head[] = {0x80, 0xE0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3};
    std::copy(std::begin(head), std::end(head), bytes.begin());
    return bytes;
}

struct RtpFacts {
    unsigned int seqNum, timestamp, ssrc, type, marker, payloadSize;
    const unsigned char* payload;
};

void rtpLimit(benchmark::State& state) // the fixed header only, all of it inline
{
    const std::vector<unsigned char> bytes = rtpBytes();
    for (auto _ : state) {
        const unsigned char* p = bytes.data();
        benchmark::DoNotOptimize(p);
        RtpFacts facts{};
        if (bytes.size() > 12 && (p[0] & 0xC0) == 0x80) {
            const unsigned int header = 12 + 4 * (p[0] & 15U);
            facts = {qFromBigEndian<quint16>(p + 2), qFromBigEndian<quint32>(p + 4),
                qFromBigEndian<quint32>(p + 8), p[1] & 127U, static_cast<unsigned int>(p[1]) >> 7U,
                static_cast<unsigned int>(bytes.size()) - header, p + header};
        }
        benchmark::DoNotOptimize(facts);
    }
}
void rtpNuvika(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = rtpBytes();
    for (auto _ : state) {
        const RTPPacket packet(bytes.data(), static_cast<unsigned int>(bytes.size()));
        RtpFacts facts{packet.getSeqNum(), packet.getRawTimestamp(), packet.getSSRC(),
            static_cast<unsigned int>(packet.getPayloadType()), packet.isMarked(), packet.getPayloadSize(),
            packet.getPayload()};
        benchmark::DoNotOptimize(facts);
    }
}
#if defined(BENCH_GSTREAMER)
void rtpGstreamer(benchmark::State& state)
{
    std::vector<unsigned char> bytes = rtpBytes();
    GstBuffer* buffer = gst_buffer_new_wrapped_full(
        GST_MEMORY_FLAG_READONLY, bytes.data(), bytes.size(), 0, bytes.size(), nullptr, nullptr);
    for (auto _ : state) {
        GstRTPBuffer packet = GST_RTP_BUFFER_INIT;
        gst_rtp_buffer_map(buffer, GST_MAP_READ, &packet);
        RtpFacts facts{gst_rtp_buffer_get_seq(&packet), gst_rtp_buffer_get_timestamp(&packet),
            gst_rtp_buffer_get_ssrc(&packet), gst_rtp_buffer_get_payload_type(&packet),
            static_cast<unsigned int>(gst_rtp_buffer_get_marker(&packet)),
            gst_rtp_buffer_get_payload_len(&packet),
            static_cast<const unsigned char*>(gst_rtp_buffer_get_payload(&packet))};
        benchmark::DoNotOptimize(facts);
        gst_rtp_buffer_unmap(&packet);
    }
    gst_buffer_unref(buffer);
}
BENCHMARK(rtpGstreamer);
#endif

// --- SDP: a description of 25 lines ------------------------------------------------------------------------

std::string sdpText(int number)
{
    std::string text = "v=0\r\no=- " + std::to_string(1000000 + number)
        + " 1 IN IP4 192.0.2.17\r\ns=camera session\r\ni=two streams of one "
          "camera\r\nu=http://192.0.2.17/\r\n"
          "c=IN IP4 0.0.0.0\r\nb=AS:5000\r\nt=0 0\r\n";
    for (const char* kind : {"video", "audio"}) {
        text += std::string("m=") + kind
            + " 0 RTP/AVP 96\r\nc=IN IP4 0.0.0.0\r\nb=AS:2500\r\na=control:trackID=1\r\n"
              "a=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;profile-level-id=640028\r\n"
              "a=framerate:25.0\r\na=recvonly\r\n";
    }
    return text + "a=x-dimensions:1920,1080\r\n";
}

void sdpLimit(benchmark::State& state) // each line's type and text copied into a list
{
    const std::string text = sdpText(0);
    for (auto _ : state) {
        std::vector<std::pair<std::string, std::string>> lines;
        lines.reserve(32);
        for (std::string_view rest(text); !rest.empty();) {
            const std::size_t end = rest.find('\n');
            lines.emplace_back(rest.substr(0, 1), rest.substr(2, end - 3));
            rest.remove_prefix(end + 1);
        }
        benchmark::DoNotOptimize(lines.data());
    }
}
void sdpNuvika(benchmark::State& state) // each text is new to the cache
{
    static int number = 0;
    std::vector<QString> texts;
    for (benchmark::IterationCount i = 0; i < state.max_iterations; ++i)
        texts.push_back(QString::fromStdString(sdpText(++number)));
    std::size_t next = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(SDP::fromSDPString(texts[next++]).getNumMediaDesc());
}
void sdpNuvikaCached(benchmark::State& state)
{
    const QString text = QString::fromStdString(sdpText(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(SDP::fromSDPString(text).getNumMediaDesc());
}
#if defined(BENCH_GSTREAMER)
void sdpGstreamer(benchmark::State& state)
{
    const std::string text = sdpText(0);
    for (auto _ : state) {
        GstSDPMessage message{};
        gst_sdp_message_init(&message);
        gst_sdp_message_parse_buffer(
            reinterpret_cast<const guint8*>(text.data()), static_cast<guint>(text.size()), &message);
        benchmark::DoNotOptimize(gst_sdp_message_medias_len(&message));
        gst_sdp_message_uninit(&message);
    }
}
BENCHMARK(sdpGstreamer);
#endif

// --- encryption tokens of 100 bytes
// --------------------------------------------------------------------------

constexpr int kTokenText = 100;

void makeToken(
    EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const unsigned char* key, std::string& token)
{
    static unsigned char iv[16] = {};
    static const std::string text(kTokenText, 't');
    ++iv[0];
    token.assign(32 + kTokenText + 16, '\0');
    std::memcpy(&token[12], iv, sizeof iv);
    int size = 0;
    int rest = 0;
    auto* out = reinterpret_cast<unsigned char*>(&token[32]);
    EVP_EncryptInit_ex(context, cipher, nullptr, key, iv);
    EVP_EncryptUpdate(context, out, &size, reinterpret_cast<const unsigned char*>(text.data()), kTokenText);
    EVP_EncryptFinal_ex(context, out + size, &rest);
    benchmark::DoNotOptimize(token.data());
}
void tokenLimit(benchmark::State& state) // the key's schedule is kept, only the IV changes
{
    const unsigned char key[16] = {1, 2, 3};
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_aes_128_cbc(), nullptr, key, nullptr);
    for (auto _ : state) {
        std::string token;
        makeToken(context, nullptr, nullptr, token);
    }
    EVP_CIPHER_CTX_free(context);
}
void tokenNewContext(benchmark::State& state)
{
    const unsigned char key[16] = {1, 2, 3};
    for (auto _ : state) {
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        std::string token;
        makeToken(context, EVP_aes_128_cbc(), key, token);
        EVP_CIPHER_CTX_free(context);
    }
}
struct Tokens : BufferSocketFixedFifo {
    Tokens() : BufferSocketFixedFifo(true) { }
    using BufferSocketBase::encrypt;
};
void tokenNuvika(benchmark::State& state)
{
    Tokens tokens;
    const QByteArray text(kTokenText, 't');
    for (auto _ : state) {
        QByteArray token;
        tokens.encrypt(text.constData(), text.size(), token);
        benchmark::DoNotOptimize(token.constData());
    }
}

// --- a command line with 12 parameters ---------------------------------------------------------------------

const QString kCommand = QStringLiteral(
    "set:Name=Entrance;Url=rtsp://192.0.2.17:554/live;User=viewer;Profile=3;Width=1920;Height=1080;Rate=25;"
    "Codec=H264;Bitrate=4000000;Multicast=0;Audio=1;Comment=second floor");

void commandLimit(benchmark::State& state) // into views, quotes and backslashes seen
{
    std::vector<std::pair<QStringView, QStringView>> items;
    for (auto _ : state) {
        items.clear();
        const QChar* const begin = kCommand.constData();
        const QChar* const end = begin + kCommand.size();
        const QChar* start = std::find(begin, end, QLatin1Char(':')) + 1;
        const QChar* equals = nullptr;
        bool bQuoted = false;
        for (const QChar* p = start; p < end; ++p) {
            if (*p == QLatin1Char('"')) {
                bQuoted = !bQuoted;
            } else if (*p == QLatin1Char('\\')) {
                ++p;
            } else if (!bQuoted && equals == nullptr && *p == QLatin1Char('=')) {
                equals = p;
            } else if (!bQuoted && *p == QLatin1Char(';') && equals != nullptr) {
                items.emplace_back(QStringView(start, equals), QStringView(equals + 1, p));
                start = p + 1;
                equals = nullptr;
            }
        }
        if (equals != nullptr)
            items.emplace_back(QStringView(start, equals), QStringView(equals + 1, end));
        benchmark::DoNotOptimize(items.data());
    }
}
void commandQt(
    benchmark::State& state) // split at the first colon, at semicolons and equals signs, into a map
{
    for (auto _ : state) {
        QMap<QString, QVariant> params;
        const int colon = kCommand.indexOf(QLatin1Char(':'));
        const QVector<QStringRef> items = kCommand.midRef(colon + 1).split(QLatin1Char(';'));
        for (const QStringRef& item : items) {
            const int equals = item.indexOf(QLatin1Char('='));
            params.insert(item.left(equals).toString().toLower(), item.mid(equals + 1).toString());
        }
        benchmark::DoNotOptimize(params.size());
    }
}
void commandNuvika(benchmark::State& state)
{
    QString command;
    QMap<QString, QVariant> params;
    for (auto _ : state) {
        parseCommand(kCommand, command, params);
        benchmark::DoNotOptimize(params.size());
    }
}
void commandBoost(benchmark::State& state)
{
    const std::string text = kCommand.toStdString();
    using Tokens = boost::tokenizer<boost::escaped_list_separator<char>>;
    for (auto _ : state) {
        QMap<QString, QVariant> params;
        const std::size_t colon = text.find(':');
        const std::string rest = text.substr(colon + 1);
        const Tokens items(rest, boost::escaped_list_separator<char>('\\', ';', '"'));
        for (const std::string& item : items) {
            const std::size_t equals = item.find('=');
            params.insert(QString::fromStdString(item.substr(0, equals)).toLower(),
                QString::fromStdString(item.substr(equals + 1)));
        }
        benchmark::DoNotOptimize(params.size());
    }
}

BENCHMARK(tokenLimit);
BENCHMARK(tokenNewContext);
BENCHMARK(tokenNuvika);
BENCHMARK(commandLimit);
BENCHMARK(commandQt);
BENCHMARK(commandNuvika);
BENCHMARK(commandBoost);
BENCHMARK(rtpLimit);
BENCHMARK(rtpNuvika);
BENCHMARK(sdpLimit);
BENCHMARK(sdpNuvika)->Iterations(
    1500); // five repetitions stay below what the cache keeps before it cleans up
BENCHMARK(sdpNuvikaCached);
BENCHMARK(poolLimit);
BENCHMARK(poolNuvika);
BENCHMARK(poolBoost);
BENCHMARK(poolMutexLimit);
BENCHMARK(poolMutexNuvika);
BENCHMARK(fifoLimit);
BENCHMARK(fifoNuvika);
BENCHMARK(fifoEvbuffer);
BENCHMARK(headLimit);
BENCHMARK(headNuvika);
BENCHMARK(headBeast);
BENCHMARK(digestLimit);
BENCHMARK(digestNuvika);
} // namespace

int main(int argc, char** argv)
{
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
#if defined(BENCH_GSTREAMER)
    gst_init(nullptr, nullptr);
#endif
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
