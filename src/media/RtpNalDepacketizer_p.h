// Private: what the payload formats of H.264 (RFC 6184) and H.265 (RFC 7798) have in common.
#pragma once

#include "media/FormatParameters_p.h"
#include "media/PictureCollector_p.h"

#include <KepNuvikaUtil/RtpDepacketizer.h>

namespace Nuvika
{
class RtpNalDepacketizer : public RtpDepacketizer
{
protected:
    RtpNalDepacketizer(const NalCodec& codec, const RtpUnitFormat& format) : m_pictures(codec, format) { }

    // Base64, separated by commas. What is none is skipped.
    void describe(const QByteArray& parameterSets);
    void wholeUnit(const unsigned char* data, std::size_t size);
    // Sizes of two bytes and what they measure; a size of 0 is padding.
    void aggregated(const unsigned char* data, std::size_t size, std::size_t orderBytes);
    // flags: start 0x80, end 0x40. The head is used with the start.
    void fragment(unsigned int flags, const unsigned char* head, std::size_t headSize,
        const unsigned char* data, std::size_t size);
    void unreadable() { m_pictures.lose(); }
    void showDescribed();

private:
    virtual void readPayload(const unsigned char* data, std::size_t size) = 0;
    // The payload begins in the middle of a picture.
    virtual bool goesOn(const unsigned char* data, std::size_t size) const = 0;

    void take(const RTPPacket& packet, quint32 lostBefore) final;
    bool give(RtpAccessUnit* unit) final;
    void end() final;

    PictureCollector m_pictures;
};
} // namespace Nuvika
