// Private: what an AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) says, and the ADTS head (1.A.3.2) that says
// less.
#pragma once

#include "media/BitReader_p.h"

#include <KepNuvikaUtil/RtpAccessUnit.h>

#include <QtCore/QByteArray>

#include <array>

namespace Nuvika
{
struct AacConfig {
    quint32 objectType = 0; // as announced: 2 is AAC-LC, 5 and 29 are extensions of a core
    quint32 coreType = 0;
    quint32 coreRate = 0; // in Hz, of the core's samples
    quint32 sampleRate = 0; // of what is heard
    quint32 channels = 0;
    quint32 frameLength = 1024; // in samples of the core
    QByteArray bytes;

    bool isKnown() const { return coreRate != 0; }
};

// Leaves the reader behind the configuration. Without rate or type it is not known.
AacConfig readAacConfig(BitReader* bits);
AacConfig readAacConfig(const QByteArray& bytes);
AacConfig makeAacConfig(quint32 sampleRate, quint32 channels);
void describeAac(const AacConfig& config, RtpMediaParameters* parameters);

struct AdtsHead {
    std::size_t headSize = 0; // 0: there is none
    std::size_t frameSize = 0; // with the head
};
AdtsHead readAdts(const unsigned char* data, std::size_t size);
AacConfig configOfAdts(const unsigned char* head);
constexpr std::size_t kAdtsHead = 7;
constexpr std::size_t kMostInAdts = 8191 - kAdtsHead;
std::array<unsigned char, kAdtsHead> adtsHead(const AacConfig& config, std::size_t payload);
} // namespace Nuvika
