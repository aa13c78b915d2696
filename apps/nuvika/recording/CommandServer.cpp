#include "CommandServer.h"

#include "Recorder.h"

#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
#include <KepNuvikaUtil/CommandParsing.h>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kMaxConnections = 50;
constexpr int kMaxPeriods = 100; // of one camera in an answer, the latest

QByteArray ok(const QByteArray& body) { return "ok\n" + body; }

// Each split of a line, at colons, semicolons and equals signs, takes one layer of escapes away.
QString protectedValue(QString value, int splits)
{
    for (; splits > 0; --splits)
        value = escapeString(value, QStringLiteral(":;="));
    return value;
}

QByteArray error(const QString& reason)
{
    return "error:reason=" + protectedValue(reason, 3).toUtf8() + '\n';
}

QString shown(const Periods<NTPTimestamp>& periods)
{
    QStringList texts;
    const auto& all = periods.all();
    for (auto period = all.rbegin(); period != all.rend() && texts.size() < kMaxPeriods; ++period)
        texts.prepend(period->first.toString(false) + QLatin1Char('/') + period->second.toString(false));
    return texts.join(QLatin1Char(','));
}
} // namespace

CommandServer::CommandServer(const Recorder& recorder) : m_recorder(recorder)
{
    connect(&m_server, &NuvikaTcpServer::newConnectionDesc, this, &CommandServer::accept);
}

void CommandServer::accept(int descriptor)
{
    auto* client = new BufferSocketFixedFifo(true, this); // a child
    client->setSocketDescriptor(descriptor);
    connect(
        client, &BufferSocketBase::incomingBuffer, this, [this, client](const char* data, int size, Marker) {
            const QByteArray reply = answer(QString::fromUtf8(data, size));
            // Who asks and does not read the answers is let go, before they fill the memory.
            if (!client->sendBuffer(reply.constData(), reply.size())) {
                client->close();
                client->deleteLater();
            }
        });
    connect(client, &BufferSocketBase::disconnected, client, &QObject::deleteLater);
    connect(client, &BufferSocketBase::error, client, &QObject::deleteLater);
    if (findChildren<BufferSocketFixedFifo*>(QString(), Qt::FindDirectChildrenOnly).size() > kMaxConnections)
        delete client;
}

QByteArray CommandServer::answer(const QString& line) const
{
    QString command;
    QMap<QString, QVariant> params;
    parseCommand(line, command, params);
    if (command.isEmpty() && params.size() == 1 && !params.first().isValid())
        command = params.firstKey(); // a command without parameters needs no colon
    if (command == QLatin1String("status"))
        return ok(status());
    if (command == QLatin1String("snapshot"))
        return snapshot(params.value(QStringLiteral("camera")).toString());
    if (command == QLatin1String("help"))
        return ok("status\nsnapshot:camera=IDENTIFIER\nhelp\n");
    return error(QStringLiteral("no command \"%1\"; help lists them").arg(command));
}

QByteArray CommandServer::status() const
{
    QString text;
    for (int i = 0; i < static_cast<int>(m_recorder.cameras().size()); ++i) {
        const Camera& camera = *m_recorder.cameras()[static_cast<std::size_t>(i)];
        const StreamRecord* rtp = m_recorder.rtp(i);
        const Camera::Sample sample = camera.current();
        const Periods<NTPTimestamp>& recorded = rtp != nullptr ? rtp->recorded() : camera.recorded();
        const auto add = [&text](const char* key, const QString& value) {
            text += QLatin1String(key) + QLatin1Char('=') + protectedValue(value, 2) + QLatin1Char(';');
        };
        add("id", m_recorder.identifier(i));
        add("name", camera.name());
        add("address", camera.address());
        add("state", camera.state());
        add("pictures", QString::number(camera.pictures()));
        add("pictureRate", QString::number(sample.pictures, 'f', 1));
        add("megabits", QString::number(sample.bytes * 8 / 1e6, 'f', 2));
        if (rtp != nullptr) {
            add("rtpMegabits", QString::number(rtp->figures().megabits, 'f', 2));
            add("lossPercent", QString::number(rtp->figures().lossPercent, 'f', 2));
            add("lost", QString::number(rtp->figures().allLost));
            add("keyFrames", QString::number(rtp->figures().keyFrames));
        }
        add("recorded", shown(recorded));
        text += QLatin1Char('\n');
    }
    return text.toUtf8();
}

QByteArray CommandServer::snapshot(const QString& identifier) const
{
    for (int i = 0; i < static_cast<int>(m_recorder.cameras().size()); ++i) {
        if (m_recorder.identifier(i) != identifier)
            continue;
        const QByteArray& picture = m_recorder.cameras()[static_cast<std::size_t>(i)]->lastPicture();
        const QString format = m_recorder.cameras()[static_cast<std::size_t>(i)]->format();
        if (!format.isEmpty())
            return error(
                QStringLiteral("%1 sends %2, of which no picture can be shown").arg(identifier, format));
        return picture.isEmpty() ? error(QStringLiteral("%1 has sent no picture yet").arg(identifier))
                                 : ok(picture);
    }
    return error(QStringLiteral("no camera \"%1\"; status lists them").arg(identifier));
}
