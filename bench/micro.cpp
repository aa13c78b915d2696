// Pools, FIFO, heads and Digest, beside their limits and peers.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <benchmark/benchmark.h>
#include <boost/beast/http.hpp>
#include <boost/pool/pool.hpp>
#include <event2/buffer.h>

#if defined(BENCH_POCO)
#include <Poco/Net/HTTPDigestCredentials.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
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

struct FreeList { // the limit: an intrusive list, all of it inline
    struct Node {
        Node* next;
    };
    std::vector<char> memory = std::vector<char>(kBlocks * kBlockSize);
    Node* head = nullptr;
    FreeList()
    {
        for (int i = 0; i < kBlocks; ++i)
            give(&memory[static_cast<std::size_t>(i) * kBlockSize]);
    }
    void* take()
    {
        Node* n = head;
        head = n->next;
        return n;
    }
    void give(void* p)
    {
        auto* n = static_cast<Node*>(p);
        n->next = head;
        head = n;
    }
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
            const std::size_t end = rest.find("\r\n");
            const std::string_view line = rest.substr(0, end);
            const std::size_t colon = line.find(':');
            std::string_view value = line.substr(colon + 1);
            while (!value.empty() && value.front() == ' ')
                value.remove_prefix(1);
            fields.emplace_back(line.substr(0, colon), value);
            rest.remove_prefix(end + 2);
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

void digestLimit(
    benchmark::State& state) // the hashes and their hexadecimal texts, by plain EVP with one context
{
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    const auto hex = [&](const std::string& text) {
        unsigned char digest[16];
        unsigned int size = 0;
        EVP_DigestInit_ex(context, EVP_md5(), nullptr);
        EVP_DigestUpdate(context, text.data(), text.size());
        EVP_DigestFinal_ex(context, digest, &size);
        std::string out;
        for (const unsigned char c : digest) {
            out += "0123456789abcdef"[c >> 4];
            out += "0123456789abcdef"[c & 15];
        }
        return out;
    };
    const std::string nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
    const std::string cnonce = "0a4f113b0a4f113b0a4f113b0a4f113b";
    int nc = 0;
    for (auto _ : state) {
        char count[9];
        std::snprintf(count, sizeof count, "%08x", ++nc);
        const std::string response = hex(hex("viewer:camera:simulated") + ":" + nonce + ":" + count + ":"
            + cnonce + ":auth:" + hex("GET:/live/picture.jpg"));
        benchmark::DoNotOptimize("Digest username=\"viewer\", realm=\"camera\", nonce=\"" + nonce
            + "\", uri=\"/live/picture.jpg\", response=\"" + response
            + "\", algorithm=MD5, qop=auth, nc=" + count + ", cnonce=\"" + cnonce + "\"");
    }
    EVP_MD_CTX_free(context);
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
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
