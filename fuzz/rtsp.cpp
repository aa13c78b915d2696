// What an RTSP connection brings, read at once and cut into pieces: the outcome must be the same while there
// are no strays, whose end is looked for in what is here. And the fields that have a grammar of their own.
#include "rtsp/RtspFields_p.h"
#include "rtsp/RtspMessageReader_p.h"
#include "rtsp/RtspUrl_p.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

using namespace Nuvika;

namespace
{
struct Outcome {
    QByteArray log;
    quint64 strays = 0;
};

Outcome outcomeOf(const QByteArray& stream, int piece)
{
    using Event = RtspMessageReader::Event;
    RtspLimits limits;
    limits.nHead = 512;
    limits.nBody = 512;
    limits.nStray = 512;
    RtspMessageReader reader(limits);
    reader.setChannels(RtspMessageReader::Channels(3));
    Outcome outcome;
    quint64 shown = 0;
    for (int at = 0; at < stream.size(); at += piece) {
        const QByteArray bytes = stream.mid(at, piece); // its end is the end of the memory
        reader.feed(bytes.constData(), bytes.size());
        for (Event event = reader.next(); event != Event::NeedMore; event = reader.next()) {
            outcome.strays = reader.strayBytes();
            if (event == Event::Failed) {
                outcome.log += "F";
                return outcome;
            }
            const QByteArray held = reader.memory();
            if (event == Event::Packet)
                outcome.log
                    += '$' + QByteArray::number(reader.channel()) + QByteArray(reader.data(), reader.size());
            else
                outcome.log += reader.head().toString().toLatin1() + reader.body();
            shown += static_cast<quint64>(event == Event::Packet ? reader.size() : reader.body().size());
        }
        outcome.strays = reader.strayBytes();
    }
    if (shown + outcome.strays > static_cast<quint64>(stream.size())
        || reader.position() > static_cast<quint64>(stream.size()))
        std::abort(); // a byte was used twice
    return outcome;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray stream(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const Outcome whole = outcomeOf(stream, std::max(stream.size(), 1));
    for (const int piece : {1, 7, 64}) {
        const Outcome cut = outcomeOf(stream, piece);
        if (cut.strays == 0 && whole.strays == 0 && cut.log != whole.log)
            std::abort();
    }
    const QString text = QString::fromLatin1(stream.left(stream.indexOf('\n')));
    RtspTransportField::parse(text).toString();
    RtspSessionField::parse(text);
    parseRtpInfo(text);
    parseMethods(text);
    const RtspUrl url = RtspUrl::parse(text);
    if (url.problem.isEmpty() && !RtspUrl::parse(url.toString()).problem.isEmpty())
        std::abort();
    RtspUrl::parse(QStringLiteral("rtsp://host/path")).base(text, QString());
    return 0;
}
