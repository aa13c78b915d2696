// Units of H.265 (7.3.1, table 7-1, 7.3.6) and the HEVCDecoderConfigurationRecord (ISO/IEC
// 14496-15, 8.3.3.1).
#include "media/BitReader_p.h"
#include "media/NalCodec_p.h"
#include "media/VideoSequence_p.h"

#include <algorithm>

using namespace Nuvika;

namespace
{
enum UnitType {
    eFirstLeading = 6,
    eRaslN = 8,
    eRaslR = 9,
    eLastSubLayer = 14,
    eFirstKey = 16,
    eLastKey = 23,
    eLastSlice = 31,
    eVps = 32,
    eSps = 33,
    ePps = 34,
    eDelimiter = 35,
    eFiller = 38,
    ePrefixSei = 39,
    eFirstReserved = 41,
    eLastReserved = 44,
    eFirstUnspecified = 48,
    eLastPrefix = 55
};

int typeOf(unsigned char head) { return (head >> 1) & 0x3F; }

bool isPrefix(int type)
{
    return type == ePrefixSei || (type >= eFirstReserved && type <= eLastReserved)
        || (type >= eFirstUnspecified && type <= eLastPrefix);
}

void addSets(QByteArray* record, const ParameterSets& sets, ParameterSetKind kind, int type)
{
    const auto isKind = [kind](const ParameterSet& set) { return set.kind == kind; };
    const auto count = std::count_if(sets.all().begin(), sets.all().end(), isKind);
    record->append(static_cast<char>(0x80 | type)); // all there are
    record->append(static_cast<char>(count >> 8)).append(static_cast<char>(count));
    for (const ParameterSet& set : sets.all()) {
        if (isKind(set)) {
            record->append(static_cast<char>(set.bytes.size() >> 8))
                .append(static_cast<char>(set.bytes.size()));
            record->append(set.bytes);
        }
    }
}

QByteArray hvcRecord(const ParameterSets& sets, const VideoSequence& sequence)
{
    QByteArray bytes(1, 1);
    bytes.append(
        reinterpret_cast<const char*>(sequence.general.data()), static_cast<int>(sequence.general.size()));
    const quint32 rest[] = {0xF0, 0, 0xFC, 0xFC | sequence.chromaFormat, 0xF8 | (sequence.lumaBits - 8),
        0xF8 | (sequence.chromaBits - 8), 0, 0, sequence.subLayers << 3 | (sequence.bNested ? 4U : 0U) | 3U,
        3};
    for (const quint32 byte : rest)
        bytes.append(static_cast<char>(byte));
    addSets(&bytes, sets, ParameterSetKind::Video, eVps);
    addSets(&bytes, sets, ParameterSetKind::Sequence, eSps);
    addSets(&bytes, sets, ParameterSetKind::Picture, ePps);
    return bytes;
}

// ISO/IEC 14496-15, E.3.
QByteArray hvcText(const VideoSequence& sequence)
{
    const auto& general = sequence.general;
    QByteArray text = "hvc1.";
    if ((general[0] >> 6) != 0)
        text.append(static_cast<char>('A' + (general[0] >> 6) - 1));
    text += QByteArray::number(sequence.profile) + '.';
    quint32 reversed = 0;
    for (int bit = 0; bit < 32; ++bit)
        reversed |= ((general[1U + static_cast<unsigned int>(bit) / 8] >> (7 - bit % 8)) & 1U) << bit;
    text += QByteArray::number(reversed, 16).toUpper() + ((general[0] & 0x20) != 0 ? ".H" : ".L");
    text += QByteArray::number(sequence.level);
    std::size_t last = 10;
    while (last >= 5 && general[last] == 0)
        --last;
    for (std::size_t i = 5; i <= last; ++i)
        text += '.' + QByteArray::number(general[i], 16).toUpper();
    return text;
}

class H265Codec final : public NalCodec
{
public:
    NalInfo inspect(const unsigned char* head, std::size_t size) const override
    {
        NalInfo info;
        const int type = typeOf(head[0]);
        const bool bBase = (head[0] & 1) == 0 && (size < 2 || (head[1] & 0xF8) == 0); // not of another layer
        if (type <= eLastSlice)
            readSlice(&info, type, head, size, bBase);
        else if (type >= eVps && type <= ePps && bBase)
            info.beParameterSet(static_cast<ParameterSetKind>(type - eVps));
        else if (type == eDelimiter)
            info.kind = NalKind::Delimiter;
        else if (isPrefix(type) || (type >= eVps && type <= ePps))
            info.kind = NalKind::Prefix;
        else if (type != eFiller)
            info.kind = NalKind::Suffix;
        info.bSupplement = type == ePrefixSei;
        return info;
    }

    ParameterSet readSet(ParameterSetKind kind, const QByteArray& bytes) const override
    {
        ParameterSet set{kind, 0, 0, false, bytes};
        BitReader bits(reinterpret_cast<const unsigned char*>(bytes.constData()),
            static_cast<std::size_t>(bytes.size()), true);
        bits.skip(16);
        if (kind == ParameterSetKind::Sequence) {
            set.id = readH265Sequence(bytes).id;
        } else if (kind == ParameterSetKind::Video) {
            set.id = bits.bits(4);
        } else {
            set.id = bits.ue();
            set.sequence = bits.ue();
        }
        return set;
    }

    quint32 highestSubLayer(const ParameterSet* sequence) const override
    {
        constexpr quint32 kNotKnown = 7;
        return sequence == nullptr ? kNotKnown : readH265Sequence(sequence->bytes).subLayers - 1;
    }

    std::size_t headSize() const override { return 2; }

private:
    VideoSequence readSequence(const QByteArray& unit) const override { return readH265Sequence(unit); }
    QByteArray codecText(const VideoSequence& sequence) const override { return hvcText(sequence); }
    QByteArray record(const ParameterSets& sets, const VideoSequence& sequence) const override
    {
        return hvcRecord(sets, sequence);
    }

    static void readSlice(NalInfo* info, int type, const unsigned char* head, std::size_t size, bool bBase)
    {
        if (size < 3) // a head alone; of zeros in front of a start code, too
            return;
        info->kind = bBase ? NalKind::Slice : NalKind::Suffix;
        info->bKey = type >= eFirstKey && type <= eLastKey;
        info->bIntra = info->bKey;
        info->bLeading = type == eRaslN || type == eRaslR;
        info->bReference = type > eLastSubLayer || type % 2 != 0;
        info->nSubLayer = std::max(head[1] & 7U, 1U) - 1U;
        BitReader bits(head + 2, size - 2, true);
        info->bFirst = bits.flag();
        if (info->bKey)
            bits.skip(1);
        info->nPictureSet = bits.ue();
    }
};
} // namespace

const NalCodec& Nuvika::h265Codec()
{
    static const H265Codec s_codec;
    return s_codec;
}
