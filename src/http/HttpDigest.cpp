#include "http/HttpDigest_p.h"

#include <array>
#include <initializer_list>
#include <memory>

#include <openssl/evp.h>

using namespace Nuvika;

namespace
{
constexpr std::array<DigestAlgorithm, 4> kAlgorithms{
    {{"md5", DigestAlgorithm::Md5, false}, {"md5-sess", DigestAlgorithm::Md5, true},
        {"sha-256", DigestAlgorithm::Sha256, false}, {"sha-256-sess", DigestAlgorithm::Sha256, true}}};

struct FreeHash {
    void operator()(EVP_MD* hash) const { EVP_MD_free(hash); }
};
struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Fetched once for the process, and freed before OpenSSL ends itself: a fetch costs more than the hash.
const EVP_MD* fetched(DigestAlgorithm::Hash hash)
{
    using Fetched = std::unique_ptr<EVP_MD, FreeHash>;
    static const std::array<Fetched, 2> hashes{
        Fetched(EVP_MD_fetch(nullptr, "MD5", nullptr)), Fetched(EVP_MD_fetch(nullptr, "SHA256", nullptr))};
    return hashes.at(hash).get();
}

// The thread's; kept, because a new one costs as much as the hash.
EVP_MD_CTX* threadContext()
{
    thread_local std::unique_ptr<EVP_MD_CTX, FreeContext> context;
    if (context == nullptr)
        context.reset(EVP_MD_CTX_new());
    return context.get();
}

struct HexText {
    std::array<char, std::size_t{2} * EVP_MAX_MD_SIZE> digits{};
    std::size_t size = 0;

    std::string_view view() const { return {digits.data(), size}; }
};

std::string_view view(const QByteArray& text)
{
    return {text.constData(), static_cast<std::size_t>(text.size())};
}

class Hasher
{
public:
    explicit Hasher(DigestAlgorithm::Hash hash) : m_hash(fetched(hash)), m_context(threadContext()) { }

    // The hash of the parts, joined by colons.
    HexText hex(std::initializer_list<std::string_view> parts)
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
        unsigned int size = 0;
        m_bGood = m_bGood && m_hash != nullptr && m_context != nullptr
            && EVP_DigestInit_ex(m_context, m_hash, nullptr) == 1 && addJoined(parts)
            && EVP_DigestFinal_ex(m_context, bytes.data(), &size) == 1;
        HexText text;
        for (unsigned int i = 0; m_bGood && i < size; ++i) {
            text.digits[text.size++] = "0123456789abcdef"[bytes[i] >> 4];
            text.digits[text.size++] = "0123456789abcdef"[bytes[i] & 15];
        }
        return text;
    }
    bool isGood() const { return m_bGood; }

private:
    bool addJoined(std::initializer_list<std::string_view> parts)
    {
        bool bFirst = true;
        for (const std::string_view part : parts) {
            if ((!bFirst && EVP_DigestUpdate(m_context, ":", 1) != 1)
                || EVP_DigestUpdate(m_context, part.data(), part.size()) != 1)
                return false;
            bFirst = false;
        }
        return true;
    }

    const EVP_MD* m_hash;
    EVP_MD_CTX* m_context;
    bool m_bGood = true;
};
} // namespace

const DigestAlgorithm* Nuvika::findDigestAlgorithm(const QByteArray& name)
{
    const QByteArray lower = name.toLower();
    for (const DigestAlgorithm& algorithm : kAlgorithms) {
        if (view(lower) == algorithm.name)
            return &algorithm;
    }
    return nullptr;
}

const DigestAlgorithm& Nuvika::defaultDigestAlgorithm() { return kAlgorithms.front(); }

QByteArray Nuvika::digestResponse(const DigestAlgorithm& algorithm, const DigestInput& input)
{
    const std::string_view nonce = view(input.nonce);
    const std::string_view clientNonce = view(input.clientNonce);
    const std::string_view method = view(input.method);
    const std::string_view uri = view(input.uri);
    Hasher hasher(algorithm.hash);

    HexText key = hasher.hex({view(input.user), view(input.realm), view(input.password)});
    if (algorithm.bSession)
        key = hasher.hex({key.view(), nonce, clientNonce});
    const HexText request = input.qop == "auth-int"
        ? hasher.hex({method, uri, hasher.hex({view(input.body)}).view()})
        : hasher.hex({method, uri});
    const HexText response = input.qop.isEmpty() ? hasher.hex({key.view(), nonce, request.view()})
                                                 : hasher.hex({key.view(), nonce, view(input.nonceCount),
                                                     clientNonce, view(input.qop), request.view()});
    const std::string_view text = response.view();
    return hasher.isGood() ? QByteArray(text.data(), static_cast<int>(text.size())) : QByteArray();
}
