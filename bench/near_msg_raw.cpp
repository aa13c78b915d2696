// The limit of the message rows: one buffer, plain calls, and EVP with a key schedule that is kept.
#include "EncryptedFrame.h"

#include <vector>

using namespace bench;

namespace
{
long long checksum = 0; // somebody looks at every message

void receive(const Arguments& a, bool bEncrypted)
{
    const int s = rawConnect(a.port);
    const FrameKey key;
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_DecryptInit_ex(context, EVP_aes_128_cbc(), nullptr, key.bytes, nullptr);
    std::vector<char> buffer(1 << 18);
    unsigned char plain[4096];
    std::size_t held = 0;
    watch.start();
    for (long long got = 0; got < a.amount;) {
        const ssize_t n = recv(s, buffer.data() + held, buffer.size() - held, 0);
        if (n <= 0)
            break;
        held += static_cast<std::size_t>(n);
        got += takeFrames(buffer, held, [&](const char* frame) {
            if (!bEncrypted) {
                checksum += frame[kFrameHead];
                return;
            }
            const auto* token = reinterpret_cast<const unsigned char*>(frame + kFrameHead);
            int decrypted = 0;
            int rest = 0;
            EVP_DecryptInit_ex(context, nullptr, nullptr, nullptr, token + 12);
            EVP_DecryptUpdate(
                context, plain, &decrypted, token + 32, static_cast<int>(bigEndian(frame + kFrameHead + 28)));
            EVP_DecryptFinal_ex(context, plain + decrypted, &rest);
            checksum += plain[0];
        });
    }
}

void send(const Arguments& a)
{
    const int s = rawConnect(a.port);
    const std::string frame = plainFrame();
    std::vector<char> out(1 << 16);
    std::size_t held = 0;
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        if (held + kFrameSize > out.size()) {
            writeAll(s, out.data(), held);
            held = 0;
        }
        std::memcpy(out.data() + held, frame.data(), kFrameSize);
        held += kFrameSize;
    }
    writeAll(s, out.data(), held);
    char byte = 0;
    recv(s, &byte, 1, 0);
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    if (a.mode == "msgsend")
        send(a);
    else
        receive(a, a.mode == "msgrecvenc");
    watch.report();
    std::_Exit(checksum < 0 ? 1 : 0);
}
