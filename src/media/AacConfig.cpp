#include "media/AacConfig_p.h"

#include <algorithm>
#include <iterator>

using Nuvika::AacConfig;
using Nuvika::AdtsHead;
using Nuvika::BitReader;

namespace
{
constexpr quint32 kRates[]
    = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr quint32 kLowComplexity = 2;
constexpr quint32 kBandReplication = 5;
constexpr quint32 kParametricStereo = 29;
constexpr quint32 kExplicitRate = 15;

quint32 readType(BitReader* bits)
{
    constexpr quint32 kEscape = 31;
    const quint32 type = bits->bits(5);
    return type == kEscape ? 32 + bits->bits(6) : type;
}

quint32 readRate(BitReader* bits)
{
    const quint32 index = bits->bits(4);
    if (index == kExplicitRate)
        return bits->bits(24);
    return index < std::size(kRates) ? kRates[index] : 0;
}

// Of a rate that has none the nearest.
quint32 rateIndex(quint32 rate)
{
    const auto distance = [rate](quint32 other) { return rate > other ? rate - other : other - rate; };
    const auto* nearest = std::min_element(std::begin(kRates), std::end(kRates),
        [&](quint32 a, quint32 b) { return distance(a) < distance(b); });
    return static_cast<quint32>(nearest - std::begin(kRates));
}
} // namespace

AacConfig Nuvika::readAacConfig(BitReader* bits)
{
    constexpr quint32 kSevenPlusOne = 7; // the configuration of 8 channels
    AacConfig config;
    config.objectType = config.coreType = readType(bits);
    config.coreRate = config.sampleRate = readRate(bits);
    const quint32 channels = bits->bits(4);
    config.channels = channels == kSevenPlusOne ? 8 : channels;
    if (config.objectType == kBandReplication || config.objectType == kParametricStereo) {
        config.sampleRate = readRate(bits);
        config.coreType = readType(bits);
    }
    if (bits->flag())
        config.frameLength = 960;
    if (bits->flag()) // depends on a core coder
        bits->skip(14);
    bits->flag();
    return config;
}

AacConfig Nuvika::readAacConfig(const QByteArray& bytes)
{
    BitReader bits(reinterpret_cast<const unsigned char*>(bytes.constData()),
        static_cast<std::size_t>(bytes.size()), false);
    AacConfig config = readAacConfig(&bits);
    config.bytes = bytes;
    return bytes.size() < 2 || config.objectType == 0 ? AacConfig() : config;
}

AacConfig Nuvika::makeAacConfig(quint32 sampleRate, quint32 channels)
{
    const quint32 count = channels == 8 ? 7 : std::clamp(channels, 1U, 7U);
    const quint32 value = kLowComplexity << 11 | rateIndex(sampleRate) << 7 | count << 3;
    QByteArray bytes;
    bytes.append(static_cast<char>(value >> 8)).append(static_cast<char>(value));
    return readAacConfig(bytes);
}

void Nuvika::describeAac(const AacConfig& config, RtpMediaParameters* parameters)
{
    parameters->codec = "mp4a.40." + QByteArray::number(config.objectType);
    parameters->configuration = config.bytes;
    parameters->nSampleRate = config.sampleRate;
    parameters->nChannels = config.channels;
}

AdtsHead Nuvika::readAdts(const unsigned char* data, std::size_t size)
{
    constexpr std::size_t kChecksum = 2;
    if (size < kAdtsHead || data[0] != 0xFF || (data[1] & 0xF6) != 0xF0)
        return {};
    AdtsHead head;
    head.headSize = (data[1] & 1) != 0 ? kAdtsHead : kAdtsHead + kChecksum;
    head.frameSize = (data[3] & 3U) << 11 | static_cast<unsigned int>(data[4]) << 3 | data[5] >> 5;
    return head.frameSize < head.headSize || head.frameSize > size ? AdtsHead() : head;
}

AacConfig Nuvika::configOfAdts(const unsigned char* head)
{
    const quint32 type = (head[2] >> 6) + 1U;
    const quint32 channels = (head[2] & 1U) << 2 | head[3] >> 6;
    const quint32 value = type << 11 | (head[2] >> 2 & 15U) << 7 | channels << 3;
    QByteArray bytes;
    bytes.append(static_cast<char>(value >> 8)).append(static_cast<char>(value));
    return readAacConfig(bytes);
}

std::array<unsigned char, Nuvika::kAdtsHead> Nuvika::adtsHead(const AacConfig& config, std::size_t payload)
{
    const auto length = static_cast<quint32>(payload + kAdtsHead);
    const quint32 type = config.coreType >= 1 && config.coreType <= 4 ? config.coreType : kLowComplexity;
    const quint32 channels = config.channels == 8 ? 7 : config.channels & 7U;
    const quint32 words[] = {0xFF, 0xF1, (type - 1) << 6 | rateIndex(config.coreRate) << 2 | channels >> 2,
        (channels & 3U) << 6 | length >> 11, length >> 3, (length & 7U) << 5 | 0x1F, 0xFC};
    std::array<unsigned char, kAdtsHead> head{};
    std::transform(std::begin(words), std::end(words), head.begin(),
        [](quint32 word) { return static_cast<unsigned char>(word); });
    return head;
}
