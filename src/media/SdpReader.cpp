#include "media/SdpReader_p.h"

#include "media/FormatParameters_p.h"

#include <algorithm>
#include <limits>
#include <tuple>

using Nuvika::takeToken;

namespace
{
struct StaticType {
    int payloadType;
    QLatin1String encoding;
    quint32 clockRate;
    int channels;
};

// RFC 3551, tables 4 and 5, and what is usual for two others.
constexpr int kNoType = -1;
const StaticType kStaticTypes[] = {{0, QLatin1String("PCMU"), 8000, 1}, {3, QLatin1String("GSM"), 8000, 1},
    {4, QLatin1String("G723"), 8000, 1}, {5, QLatin1String("DVI4"), 8000, 1},
    {6, QLatin1String("DVI4"), 16000, 1}, {7, QLatin1String("LPC"), 8000, 1},
    {8, QLatin1String("PCMA"), 8000, 1}, {9, QLatin1String("G722"), 8000, 1},
    {10, QLatin1String("L16"), 44100, 2}, {11, QLatin1String("L16"), 44100, 1},
    {12, QLatin1String("QCELP"), 8000, 1}, {13, QLatin1String("CN"), 8000, 1},
    {14, QLatin1String("MPA"), 90000, 1}, {15, QLatin1String("G728"), 8000, 1},
    {16, QLatin1String("DVI4"), 11025, 1}, {17, QLatin1String("DVI4"), 22050, 1},
    {18, QLatin1String("G729"), 8000, 1}, {25, QLatin1String("CELB"), 90000, 1},
    {26, QLatin1String("JPEG"), 90000, 1}, {28, QLatin1String("NV"), 90000, 1},
    {31, QLatin1String("H261"), 90000, 1}, {32, QLatin1String("MPV"), 90000, 1},
    {33, QLatin1String("MP2T"), 90000, 1}, {34, QLatin1String("H263"), 90000, 1},
    {kNoType, QLatin1String("OPUS"), 48000, 2}, {kNoType, QLatin1String("AC3"), 48000, 2}};

// The next of the words between blanks.
QStringView takeWord(QStringView& rest)
{
    rest = rest.trimmed();
    qsizetype at = 0;
    while (at < rest.size() && !rest.at(at).isSpace())
        ++at;
    const QStringView word = rest.left(at);
    rest = rest.mid(at).trimmed();
    return word;
}

// The digits in front; `otherwise` when there are none or too many.
int number(QStringView text, int otherwise)
{
    qint64 value = 0;
    qsizetype at = 0;
    for (; at < text.size() && text.at(at) >= QLatin1Char('0') && text.at(at) <= QLatin1Char('9'); ++at) {
        value = value * 10 + (text.at(at).unicode() - '0');
        if (value > std::numeric_limits<int>::max())
            return otherwise;
    }
    return at > 0 ? static_cast<int>(value) : otherwise;
}

bool isWord(QStringView text, const char* word)
{
    return text.compare(QLatin1String(word), Qt::CaseInsensitive) == 0;
}

bool isGroup(const QString& address)
{
    const int first = number(address, 0);
    return address.contains(QLatin1Char(':'))
        ? address.startsWith(QLatin1String("ff"), Qt::CaseInsensitive)
        : first >= 224 && first <= 239 && address.count(QLatin1Char('.')) == 3;
}

void takeSize(QStringView value, QChar separator, SdpFormat* format)
{
    const int width = number(takeToken(value, separator), 0);
    const int height = number(value.trimmed(), 0);
    if (width > 0 && height > 0) {
        format->width = width;
        format->height = height;
    }
}

// "encoding/rate/channels", each of which may be missing.
void takeMapping(QStringView value, SdpFormat* format)
{
    if (!format->encoding.isEmpty())
        return; // the first one holds
    format->encoding = takeToken(value, QLatin1Char('/')).toString().toUpper();
    format->clockRate = static_cast<quint32>(number(takeToken(value, QLatin1Char('/')), 0));
    format->channels = qBound(1, number(value.trimmed(), 1), 255);
}

void fillIn(SdpFormat& format, const QString& mediaType)
{
    const bool bMapped = !format.encoding.isEmpty();
    const StaticType* found = std::find_if(
        std::begin(kStaticTypes), std::end(kStaticTypes), [&format, bMapped](const StaticType& each) {
            return bMapped ? format.encoding == each.encoding
                           : format.payloadType != kNoType && format.payloadType == each.payloadType;
        });
    const bool bFound = found != std::end(kStaticTypes);
    if (!bMapped && bFound) {
        format.encoding = found->encoding;
        format.channels = found->channels;
    }
    if (format.clockRate == 0 && !format.encoding.isEmpty()) {
        const quint32 usual = isWord(mediaType, "audio") ? 8000 : 90000;
        format.clockRate = bFound ? found->clockRate : usual;
    }
}
} // namespace

namespace Nuvika
{
void SdpReader::read(const QByteArray& text)
{
    const QString all = QString::fromUtf8(text.constData(), std::min(text.size(), SdpDescription::kMaxSize));
    m_out->bCut = text.size() > SdpDescription::kMaxSize;
    const auto isEnd = [](QChar c) { return c == QLatin1Char('\n') || c == QLatin1Char('\r') || c.isNull(); };
    for (auto begin = all.begin(); begin != all.end() && m_nLines <= SdpDescription::kMaxLines;) {
        const auto end = std::find_if(begin, all.end(), isEnd);
        takeLine(QStringView(begin, end).trimmed());
        begin = std::find_if_not(end, all.end(), isEnd);
    }
    std::for_each(m_out->media.begin(), m_out->media.end(), [this](SdpMedia& media) { complete(media); });
}

void SdpReader::takeLine(QStringView line)
{
    if (line.size() < 2 || line.at(1) != QLatin1Char('=') || line.at(0).unicode() > 127)
        return;
    if (++m_nLines > SdpDescription::kMaxLines) {
        m_out->bCut = true;
        return;
    }
    const SdpLine read{line.at(0).toLatin1(), line.mid(2).trimmed().toString()};
    if (read.type == 'm')
        takeMedia(read.value);
    if (m_bSkipping)
        return;
    (m_media != nullptr ? m_media->lines : m_out->lines).append(read);
    if (read.type == 'c')
        takeConnection(read.value);
    else if (read.type == 'a')
        takeAttribute(read.value);
}

// "type port transport format ..."
void SdpReader::takeMedia(QStringView value)
{
    m_bSkipping = m_out->media.size() >= SdpDescription::kMaxMedia;
    if (m_bSkipping) {
        m_out->bCut = true;
        return;
    }
    m_out->media.reserve(SdpDescription::kMaxMedia);
    m_out->media.append(SdpMedia());
    m_media = &m_out->media.last();
    m_media->direction = m_out->direction;
    m_media->type = takeWord(value).toString();
    m_media->port = qMin(number(takeWord(value), 0), 65535);
    m_media->transport = takeWord(value).toString();
    m_bListed = false;
    while (!value.isEmpty() && formatFor(takeWord(value)) != nullptr) { }
    m_bListed = !m_media->formats.isEmpty();
}

// "IN IP4 address/ttl", any part of which may be missing; the first address holds.
void SdpReader::takeConnection(QStringView value)
{
    SdpConnection& connection = m_media != nullptr ? m_media->connection : m_out->connection;
    while (!value.isEmpty() && connection.address.isEmpty()) {
        QStringView word = takeWord(value);
        if (isWord(word, "IN") || isWord(word, "IP4") || isWord(word, "IP6"))
            continue;
        connection.address = takeToken(word, QLatin1Char('/')).toString();
        connection.bMulticast = isGroup(connection.address);
        const bool bTtl = connection.bMulticast && !connection.address.contains(QLatin1Char(':'));
        connection.ttl = bTtl ? qMin(number(word, -1), 255) : -1;
    }
}

void SdpReader::takeAttribute(QStringView value)
{
    const QStringView name = takeToken(value, QLatin1Char(':'));
    value = value.trimmed();
    if (takeDirection(name))
        return;
    if (isWord(name, "control")) {
        QString& control = m_media != nullptr ? m_media->control : m_out->control;
        if (control.isEmpty())
            control = value.toString();
    } else if (m_media != nullptr && isWord(name, "framerate")) {
        const double rate = value.toString().toDouble();
        m_media->frameRate = rate > 0 && rate < 1000 ? rate : 0;
    } else if (m_media != nullptr) {
        takeFormatAttribute(name, value);
    }
}

bool SdpReader::takeDirection(QStringView name)
{
    static const char* const kNames[]
        = {"sendrecv", "sendonly", "recvonly", "inactive"}; // as the enumerators
    const auto found = std::find_if(
        std::begin(kNames), std::end(kNames), [name](const char* each) { return isWord(name, each); });
    if (found == std::end(kNames))
        return false;
    (m_media != nullptr ? m_media->direction : m_out->direction)
        = static_cast<sdp_direction_t>(found - std::begin(kNames));
    return true;
}

void SdpReader::takeFormatAttribute(QStringView name, QStringView value)
{
    if (isWord(name, "x-dimensions")) {
        SdpFormat size;
        takeSize(value, QLatin1Char(','), &size);
        for (SdpFormat& format : m_media->formats)
            std::tie(format.width, format.height) = std::tie(size.width, size.height);
        return;
    }
    const bool bMapping = isWord(name, "rtpmap");
    const bool bParameters = isWord(name, "fmtp");
    if (!bMapping && !bParameters && !isWord(name, "framesize"))
        return;
    SdpFormat* format = formatFor(takeWord(value));
    if (format == nullptr)
        return;
    if (bMapping)
        takeMapping(value, format);
    else if (bParameters)
        takeParameters(value, format);
    else
        takeSize(value, QLatin1Char('-'), format);
}

// A section that lists no formats has those of its attributes.
SdpFormat* SdpReader::formatFor(QStringView name)
{
    QVector<SdpFormat>& formats = m_media->formats;
    const int payloadType = number(name, -1);
    const auto found
        = std::find_if(formats.begin(), formats.end(), [name, payloadType](const SdpFormat& each) {
              return payloadType >= 0 ? each.payloadType == payloadType : name == each.name;
          });
    if (found != formats.end())
        return &*found;
    return m_bListed ? nullptr : addFormat(name);
}

SdpFormat* SdpReader::addFormat(QStringView name)
{
    if (m_media->formats.size() >= SdpDescription::kMaxFormats) {
        m_out->bCut = true;
        return nullptr;
    }
    SdpFormat format;
    format.name = name.toString();
    const bool bDigits = std::all_of(name.begin(), name.end(), [](QChar c) { return c.isDigit(); });
    const int payloadType = bDigits ? number(name, -1) : -1;
    format.payloadType = payloadType <= 127 ? payloadType : -1;
    m_media->formats.append(format);
    return &m_media->formats.last();
}

void SdpReader::takeParameters(QStringView value, SdpFormat* format)
{
    if (!format->fmtp.isEmpty())
        format->fmtp += QLatin1Char(';');
    format->fmtp += value.trimmed();
    m_out->bCut = !readFormatParameters(value, &format->parameters) || m_out->bCut;
}

void SdpReader::complete(SdpMedia& media)
{
    if (media.connection.address.isEmpty())
        media.connection = m_out->connection;
    for (SdpFormat& format : media.formats)
        fillIn(format, media.type);
}
} // namespace Nuvika
