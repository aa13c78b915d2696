// Private: the head of an outgoing frame, and what it announces.
#pragma once

#include "msg/CommandExtractor_p.h"

#include <QtCore/QByteArray>
#include <QtCore/QtEndian>

#include <array>

namespace Nuvika
{
using FrameHead = std::array<char, CommandExtractor::kHeadSize>;

inline FrameHead frameHead(quint32 magic, int payloadSize)
{
    FrameHead head;
    qToBigEndian<quint32>(magic, head.data());
    qToBigEndian<quint32>(static_cast<quint32>(payloadSize), head.data() + 4);
    return head;
}
} // namespace Nuvika
