// Audio whose packets are units as they are (RFC 3551 section 4.5, RFC 7587).
#include "media/FormatParameters_p.h"
#include "media/RtpPayloads_p.h"

#include <KepNuvikaUtil/RTPPacket.h>

namespace
{
struct Kind {
    const char* name;
    const char* codec;
    quint32 sampleRate; // 0: the clock rate, 8000 without one
    quint32 channels; // 0: as described, 1 without a word
};

// G.722 has 16,000 samples and, by an old mistake, a clock of 8,000; Opus always says 48,000 and 2.
constexpr Kind kKinds[] = {
    {"PCMU", "ulaw", 0, 0},
    {"PCMA", "alaw", 0, 0},
    {"G722", "g722", 16000, 0},
    {"L16", "twos", 0, 0},
    {"OPUS", "opus", 48000, 2},
};

// RFC 7845, 5.1, without samples to skip, because a live stream has no beginning.
QByteArray opusHead(quint32 channels)
{
    QByteArray head("OpusHead\x01", 9);
    head.append(static_cast<char>(channels)).append(2, '\0');
    head.append("\x80\xBB\0\0", 4).append(3, '\0'); // 48,000
    return head;
}

class PlainAudioDepacketizer final : public RtpDepacketizer
{
public:
    explicit PlainAudioDepacketizer(const RtpPayloadFormat& payload)
    {
        constexpr quint32 kUsualRate = 8000;
        const QString name = payload.encodingName.trimmed();
        Kind kind{nullptr, nullptr, 0, 0};
        for (const Kind& known : kKinds) {
            if (name.compare(QLatin1String(known.name), Qt::CaseInsensitive) == 0)
                kind = known;
        }
        m_parameters.codec = kind.codec != nullptr ? QByteArray(kind.codec) : name.toLower().toLatin1();
        const quint32 clock = payload.nClockRate != 0 ? payload.nClockRate : kUsualRate;
        m_parameters.nSampleRate = kind.sampleRate != 0 ? kind.sampleRate : clock;
        const quint32 described = payload.nChannels != 0 ? payload.nChannels : 1;
        m_parameters.nChannels = kind.channels != 0 ? kind.channels : described;
        if (m_parameters.codec == "opus")
            m_parameters.configuration = opusHead(m_parameters.nChannels);
    }

private:
    void take(const RTPPacket& packet, quint32 lostBefore) override
    {
        m_nPacketsLost += lostBefore;
        m_unit = RtpAccessUnit();
        m_unit.pData = packet.getPayload();
        m_unit.nSize = packet.getPayloadSize();
        m_unit.nTimestamp = packet.getRawTimestamp();
        m_unit.bKeyFrame = true;
        m_unit.bRecoveryPoint = true;
    }

    bool give(RtpAccessUnit* unit) override
    {
        if (m_unit.nSize == 0)
            return false;
        *unit = m_unit;
        unit->nPacketsLost = m_nPacketsLost;
        m_nPacketsLost = 0;
        m_unit.nSize = 0;
        return true;
    }

    void end() override { m_unit.nSize = 0; }

    RtpAccessUnit m_unit;
    quint32 m_nPacketsLost = 0;
};
} // namespace

std::unique_ptr<RtpDepacketizer> Nuvika::plainAudioDepacketizer(
    const RtpPayloadFormat& payload, const RtpUnitFormat&)
{
    return std::make_unique<PlainAudioDepacketizer>(payload);
}
