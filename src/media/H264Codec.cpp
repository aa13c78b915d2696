// Units of H.264 (7.3.1, 7.4.1, 7.3.3) and the AVCDecoderConfigurationRecord (ISO/IEC 14496-15, 5.3.3.1).
#include "media/BitReader_p.h"
#include "media/NalCodec_p.h"
#include "media/VideoSequence_p.h"

#include <algorithm>
#include <initializer_list>

using namespace Nuvika;

namespace
{
enum UnitType {
    eSlice = 1,
    eDataA = 2,
    eDataC = 4,
    eIdr = 5,
    eSei = 6,
    eSps = 7,
    ePps = 8,
    eDelimiter = 9,
    eFiller = 12,
    eLastPrefix = 18,
    eFirstPrefix = 14,
    eSpsExtension = 13
};

void addSets(QByteArray* record, const ParameterSets& sets, ParameterSetKind kind, unsigned int most,
    unsigned int flags)
{
    const int countAt = record->size();
    unsigned int count = 0;
    record->append('\0');
    for (const ParameterSet& set : sets.all()) {
        if (set.kind != kind || count == most)
            continue;
        record->append(static_cast<char>(set.bytes.size() >> 8)).append(static_cast<char>(set.bytes.size()));
        record->append(set.bytes);
        ++count;
    }
    (*record)[countAt] = static_cast<char>(count | flags);
}

bool hasFormatInRecord(quint32 profile)
{
    return profile == 100 || profile == 110 || profile == 122 || profile == 144;
}

QByteArray avcRecord(const ParameterSets& sets, const VideoSequence& sequence)
{
    QByteArray bytes;
    for (const quint32 byte : {1U, sequence.profile, sequence.compatibility, sequence.level, 0xFFU})
        bytes.append(static_cast<char>(byte));
    addSets(&bytes, sets, ParameterSetKind::Sequence, 31, 0xE0);
    addSets(&bytes, sets, ParameterSetKind::Picture, 255, 0);
    if (hasFormatInRecord(sequence.profile)) {
        for (const quint32 byte : {0xFC | sequence.chromaFormat, 0xF8 | (sequence.lumaBits - 8),
                 0xF8 | (sequence.chromaBits - 8), 0U})
            bytes.append(static_cast<char>(byte));
    }
    return bytes;
}

class H264Codec final : public NalCodec
{
public:
    NalInfo inspect(const unsigned char* head, std::size_t size) const override
    {
        NalInfo info;
        const int type = head[0] & 0x1F;
        if (type >= eSlice && type <= eIdr)
            readSlice(&info, type, head, size);
        else if (type == eSps || type == ePps)
            info.beParameterSet(type == eSps ? ParameterSetKind::Sequence : ParameterSetKind::Picture);
        else if (type == eDelimiter)
            info.kind = NalKind::Delimiter;
        else if (type == eSei || type == eSpsExtension || (type >= eFirstPrefix && type <= eLastPrefix))
            info.kind = NalKind::Prefix;
        else if (type != 0 && type != eFiller)
            info.kind = NalKind::Suffix;
        info.bSupplement = type == eSei;
        return info;
    }

    ParameterSet readSet(ParameterSetKind kind, const QByteArray& bytes) const override
    {
        ParameterSet set{kind, 0, 0, false, bytes};
        if (kind == ParameterSetKind::Sequence) {
            set.id = readH264Sequence(bytes).id;
        } else {
            BitReader bits(reinterpret_cast<const unsigned char*>(bytes.constData()),
                static_cast<std::size_t>(bytes.size()), true);
            bits.skip(8);
            set.id = bits.ue();
            set.sequence = bits.ue();
        }
        return set;
    }

    quint32 highestSubLayer(const ParameterSet*) const override { return 0; }
    std::size_t headSize() const override { return 1; }

private:
    VideoSequence readSequence(const QByteArray& unit) const override { return readH264Sequence(unit); }
    QByteArray codecText(const VideoSequence& sequence) const override
    {
        const quint32 profile = sequence.profile << 16 | sequence.compatibility << 8 | sequence.level;
        return "avc1." + QByteArray::number(profile, 16).rightJustified(6, '0');
    }
    QByteArray record(const ParameterSets& sets, const VideoSequence& sequence) const override
    {
        return avcRecord(sets, sequence);
    }

    static void readSlice(NalInfo* info, int type, const unsigned char* head, std::size_t size)
    {
        if (size < 2) // a head alone
            return;
        info->kind = NalKind::Slice;
        info->bKey = type == eIdr;
        info->bReference = (head[0] & 0x60) != 0;
        BitReader bits(head + 1, size - 1, true);
        // Partitions B and C of a slice name no place of their own: they follow A.
        const bool bPlace = type <= eDataA || type == eIdr;
        info->bFirst = bPlace && bits.ue() == 0 && bits.isGood();
        if (!bPlace)
            return;
        const quint32 slice = bits.ue() % 5;
        info->bIntra = bits.isGood() && (slice == 2 || slice == 4);
        info->nPictureSet = bits.ue();
    }
};
} // namespace

const NalCodec& Nuvika::h264Codec()
{
    static const H264Codec s_codec;
    return s_codec;
}
