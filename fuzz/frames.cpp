// A byte stream as a message socket sees it: cut anywhere, framed, and its tokens read.
#include "msg/BufferSocketCrypto_p.h"
#include "msg/CommandExtractor_p.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static BufferSocketDecrypter s_decrypter;
    if (size == 0)
        return 0;
    CommandExtractor extractor;
    QByteArray plain;
    const std::size_t step = 1 + data[0];
    std::size_t frames = 0;
    for (std::size_t from = 1; from < size; from += step) {
        const int piece = static_cast<int>(from + step < size ? step : size - from);
        if (!extractor.feed(reinterpret_cast<const char*>(data) + from, piece))
            std::abort();
        CommandExtractor::Command command{};
        while (extractor.getFirstCommand(&command)) {
            ++frames;
            if (command.bEncrypted)
                s_decrypter.decrypt(command.pData, command.nSize, &plain);
            for (int i = 0; i < command.nSize; ++i) {
                volatile char c = command.pData[i];
                (void)c;
            }
            extractor.removeFirstCommand();
        }
    }
    if (frames > size / CommandExtractor::kHeadSize)
        std::abort();
    return 0;
}
