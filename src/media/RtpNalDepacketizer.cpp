#include "media/RtpNalDepacketizer_p.h"

#include <KepNuvikaUtil/RTPPacket.h>

#include <QtCore/QList>

#include <algorithm>

using Nuvika::RtpNalDepacketizer;

void RtpNalDepacketizer::describe(const QByteArray& parameterSets)
{
    for (const QByteArray& text : parameterSets.split(',')) {
        const auto decoded
            = QByteArray::fromBase64Encoding(text.trimmed(), QByteArray::AbortOnBase64DecodingErrors);
        if (decoded && !decoded.decoded.isEmpty())
            m_pictures.describe(decoded.decoded);
    }
}

void RtpNalDepacketizer::showDescribed()
{
    RtpMediaParameters described = m_pictures.described();
    if (!described.configuration.isEmpty())
        m_parameters = described;
}

void RtpNalDepacketizer::take(const RTPPacket& packet, quint32 lostBefore)
{
    const unsigned char* data = packet.getPayload();
    const std::size_t size = packet.getPayloadSize();
    m_pictures.beginPacket(packet.getRawTimestamp(), lostBefore, goesOn(data, size));
    readPayload(data, size);
    m_pictures.endPacket(packet.isMarked());
    m_nUnitsLost = m_pictures.unitsLost();
}

bool RtpNalDepacketizer::give(RtpAccessUnit* unit)
{
    RtpMediaParameters parameters;
    if (!m_pictures.give(unit, &parameters))
        return false;
    if (parameters.configuration.isEmpty()) // nothing but what the description may have said
        parameters = m_parameters;
    // Mostly they share their bytes, which need no comparison then.
    const QByteArray& before = m_parameters.configuration;
    const QByteArray& now = parameters.configuration;
    unit->bParametersChanged = (before.constData() != now.constData() && before != now)
        || parameters.codedSize != m_parameters.codedSize;
    m_parameters = parameters;
    return true;
}

void RtpNalDepacketizer::end()
{
    m_pictures.flush();
    m_nUnitsLost = m_pictures.unitsLost();
}

void RtpNalDepacketizer::wholeUnit(const unsigned char* data, std::size_t size)
{
    m_pictures.units().begin();
    m_pictures.units().add(data, size);
    m_pictures.units().end();
}

void RtpNalDepacketizer::aggregated(const unsigned char* data, std::size_t size, std::size_t orderBytes)
{
    constexpr std::size_t kSize = 2;
    while (size >= kSize) {
        const std::size_t length = data[0] * 256U + data[1];
        data += kSize;
        size -= kSize;
        if (length == 0)
            continue;
        if (length > size)
            return unreadable();
        wholeUnit(data, length);
        const std::size_t step = std::min(size, length + orderBytes);
        data += step;
        size -= step;
    }
}

void RtpNalDepacketizer::fragment(unsigned int flags, const unsigned char* head, std::size_t headSize,
    const unsigned char* data, std::size_t size)
{
    constexpr unsigned int kStart = 0x80;
    constexpr unsigned int kEnd = 0x40;
    AnnexBSplitter& units = m_pictures.units();
    if ((flags & kStart) != 0) {
        units.begin();
        units.add(head, headSize);
    } else if (!units.isOpen()) {
        if (size > 0)
            unreadable();
        return;
    }
    units.add(data, size);
    if ((flags & kEnd) != 0)
        units.end();
}
