#include "media/NalCodec_p.h"

using namespace Nuvika;

RtpMediaParameters NalCodec::describe(const ParameterSets& sets, const ParameterSet* sequence) const
{
    RtpMediaParameters parameters;
    if (sequence == nullptr)
        return parameters;
    const VideoSequence read = readSequence(sequence->bytes);
    parameters.codec = codecText(read);
    parameters.configuration = record(sets, read);
    parameters.codedSize = read.codedSize;
    parameters.shownSize = read.shownSize;
    parameters.pixelAspect = read.pixelAspect;
    return parameters;
}
