// Private: what differs between H.264 and H.265 for who collects their pictures. Constant, and without state.
#pragma once

#include "media/ParameterSets_p.h"
#include "media/VideoSequence_p.h"

#include <KepNuvikaUtil/RtpAccessUnit.h>

namespace Nuvika
{
enum class NalKind {
    Slice, // of a picture
    ParameterSet,
    Prefix, // stands before the picture that it belongs to: supplemental information and the like
    Suffix, // stands behind slices of its picture
    Delimiter, // of access units; not handed on, so that all cameras' output is alike
    Filler // not handed on either
};

struct NalInfo {
    NalKind kind = NalKind::Filler;
    ParameterSetKind set = ParameterSetKind::Video;
    bool bSupplement = false; // a prefix with supplemental information
    // Slices:
    bool bFirst = false; // of its picture
    bool bKey = false;
    bool bIntra = false;
    bool bLeading = false; // may refer to pictures before the key frame that it follows (RASL)
    bool bReference = true;
    quint32 nSubLayer = 0;
    quint32 nPictureSet = 0;

    void beParameterSet(ParameterSetKind which)
    {
        kind = NalKind::ParameterSet;
        set = which;
    }
};

class NalCodec
{
public:
    // The head, and what of the rest has come: AnnexBSplitter::kHead bytes, or all of a shorter unit.
    virtual NalInfo inspect(const unsigned char* head, std::size_t size) const = 0;
    virtual ParameterSet readSet(ParameterSetKind kind, const QByteArray& bytes) const = 0;
    // sequence: the one in use, or null.
    RtpMediaParameters describe(const ParameterSets& sets, const ParameterSet* sequence) const;
    // The highest sub-layer of the sequence; a high number when it is not known.
    virtual quint32 highestSubLayer(const ParameterSet* sequence) const = 0;
    virtual std::size_t headSize() const = 0;

protected:
    ~NalCodec() = default;

private:
    virtual VideoSequence readSequence(const QByteArray& unit) const = 0;
    virtual QByteArray codecText(const VideoSequence& sequence) const = 0; // RFC 6381
    virtual QByteArray record(const ParameterSets& sets, const VideoSequence& sequence) const = 0;
};

const NalCodec& h264Codec();
const NalCodec& h265Codec();
} // namespace Nuvika
