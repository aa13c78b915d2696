// Private: an outgoing frame.
#pragma once

#include <KepNuvikaUtil/BufferSocketBase.h>

#include "msg/CommandExtractor_p.h"

#include <QtCore/QByteArray>

#include <array>

struct BufferSocketBase::Frame {
    std::array<char, CommandExtractor::kHeadSize> head;
    QByteArray token; // the payload of an encrypted frame
    const char* pPayload; // the token, or the sender's own bytes
    int nPayload;
};
