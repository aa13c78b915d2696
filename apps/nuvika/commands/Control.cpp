#include "Control.h"

#include "base/Exit.h"
#include "base/Interrupt.h"
#include "base/Options.h"
#include "base/Output.h"

#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/CommandParsing.h>
#include <KepNuvikaUtil/NuvikaError.h>
#include <KepNuvikaUtil/SocketError.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <QtCore/QUrl>

#include <functional>

#include <unistd.h>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

namespace
{
constexpr int kPatienceMs = 10000;

// A connection to a command port: each answer goes to a handler, whatever ends it ends the program.
class CommandClient : public QObject
{
public:
    using Handler = std::function<void(const QByteArray& body)>;

    CommandClient(const QString& host, unsigned short port, Handler handler)
        : m_handler(std::move(handler)), m_socket(true)
    {
        connect(&m_socket, &BufferSocketBase::connected, this, [this] {
            m_bConnected = true;
            flush();
        });
        connect(&m_socket, &BufferSocketBase::incomingBuffer, this,
            [this](const char* data, int size, Marker) { take(QByteArray(data, size)); });
        connect(&m_socket, &BufferSocketBase::disconnected, this,
            [] { fail(Exit::kLost, QStringLiteral("the recorder has ended the connection")); });
        connect(&m_socket, &BufferSocketBase::error, this, [this](int code) {
            const int refused = code == NuvikaError::eHostNotFound ? Exit::kNoHost : Exit::kNoConnection;
            fail(m_bConnected ? Exit::kLost : refused, SocketError::format(code).toLower());
        });
        m_patience.setSingleShot(true);
        connect(&m_patience, &QTimer::timeout, this,
            [] { fail(Exit::kTimeout, QStringLiteral("no answer within %1 s").arg(kPatienceMs / 1000)); });
        m_socket.connectToHost(host, port);
    }

    void ask(const QString& command)
    {
        m_pending = command.toUtf8();
        flush();
        m_patience.start(kPatienceMs);
    }

private:
    void flush()
    {
        if (!m_pending.isEmpty() && m_socket.sendBuffer(m_pending.constData(), m_pending.size()))
            m_pending.clear();
    }

    void take(const QByteArray& answer)
    {
        m_patience.stop();
        const int end = answer.indexOf('\n');
        const QByteArray head = answer.left(end);
        if (head == "ok") {
            m_handler(answer.mid(end + 1));
            return;
        }
        QString command;
        QMap<QString, QVariant> params;
        parseCommand(QString::fromUtf8(head), command, params);
        const QString reason = params.value(QStringLiteral("reason")).toString();
        if (reason.isEmpty())
            fail(Exit::kLost, QStringLiteral("an answer that cannot be read"));
        else
            fail(Exit::kFailure, reason);
    }

    static void fail(int code, const QString& reason)
    {
        Output::complain(reason);
        QCoreApplication::exit(code);
    }

    Handler m_handler;
    bool m_bConnected = false;
    QByteArray m_pending;
    QTimer m_patience;
    BufferSocketQueued m_socket;
};

bool parseAddress(const QString& text, QString* host, unsigned short* port)
{
    const QUrl url(QStringLiteral("tcp://") + text);
    *host = url.host();
    *port = static_cast<unsigned short>(url.port(0));
    if (!host->isEmpty() && *port != 0 && url.path().isEmpty() && url.userInfo().isEmpty() && !url.hasQuery()
        && !url.hasFragment())
        return true;
    Output::complain(QStringLiteral("\"%1\" is no HOST:PORT").arg(text));
    return false;
}

// "10:00:01-10:00:14" for each period, the latest three.
QString shownPeriods(const QString& recorded)
{
    constexpr int kShown = 3;
    constexpr int kTimeAt = 11; // behind the date
    constexpr int kTimeSize = 8;
    const QStringList all = recorded.split(QLatin1Char(','), Qt::SkipEmptyParts);
    QStringList shown;
    for (const QString& period : all.mid(qMax(0, all.size() - kShown)))
        shown.append(period.section(QLatin1Char('/'), 0, 0).mid(kTimeAt, kTimeSize) + QLatin1Char('-')
            + period.section(QLatin1Char('/'), 1, 1).mid(kTimeAt, kTimeSize));
    if (all.size() > kShown)
        shown.prepend(QStringLiteral("%1 periods, the last").arg(all.size()));
    return shown.join(QLatin1Char(' '));
}

int showStatus(const QByteArray& body)
{
    const QStringList lines = QString::fromUtf8(body).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    Output::print("%-24s %-14s %7s %8s %11s %7s  %-12s %s\n", "identifier", "name", "per s", "Mbit/s",
        "RTP Mbit/s", "lost %", "state", "recorded (UTC)");
    for (const QString& line : lines) {
        QMap<QString, QVariant> camera;
        parseDefinition(line, camera, false);
        const auto value = [&camera](const char* key) {
            const QString text = camera.value(QLatin1String(key)).toString();
            return Output::shown(text.isEmpty() ? QStringLiteral("-") : text);
        };
        Output::print("%-24s %-14s %7s %8s %11s %7s  %-12s %s\n", value("id").constData(),
            value("name").constData(), value("pictureRate").constData(), value("megabits").constData(),
            value("rtpMegabits").constData(), value("lossPercent").constData(), value("state").constData(),
            Output::shown(shownPeriods(camera.value(QStringLiteral("recorded")).toString())).constData());
    }
    return lines.size() + 1;
}
} // namespace

int runStatus(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Prints the cameras of a recorder: rates, losses, recorded periods."));
    parser.addOption({QStringLiteral("watch"), QStringLiteral("Again each second, until Ctrl-C.")});
    parser.addPositionalArgument(
        QStringLiteral("HOST:PORT"), QStringLiteral("The command port that the recorder prints."));
    if (const auto code = readOptions(parser, "status", arguments, {1, 1, "one HOST:PORT"}))
        return *code;
    QString host;
    unsigned short port = 0;
    if (!parseAddress(parser.positionalArguments().first(), &host, &port))
        return Exit::kUsage;
    const bool bWatch = parser.isSet(QStringLiteral("watch"));
    const bool bTerminal = isatty(STDOUT_FILENO) == 1;
    int lines = 0;
    QTimer again;
    CommandClient client(host, port, [&](const QByteArray& body) {
        if (bTerminal && lines > 0)
            Output::print("\x1b[%dA\x1b[J", lines);
        lines = showStatus(body);
        if (bWatch && Output::flush())
            again.start(1000);
        else
            QCoreApplication::exit(Exit::kOk);
    });
    again.setSingleShot(true);
    QObject::connect(&again, &QTimer::timeout, [&client] { client.ask(QStringLiteral("status")); });
    client.ask(QStringLiteral("status"));
    const Interrupt interrupt([] { QCoreApplication::exit(Exit::kOk); });
    return QCoreApplication::exec();
}

int runSend(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Sends one command line to a recorder and writes its answer to standard output:\n"
                       "  nuvika send HOST:PORT 'snapshot:camera=cam_camera1_0001' > picture.jpg\n"
                       "  nuvika send HOST:PORT help\n"
                       "Colons, semicolons, equals signs, quotes and backslashes in a value stand behind a "
                       "backslash.\n"
                       "A password as a marked hex string is decoded before the line is split: escape the "
                       "password\n"
                       "before nuvika password encode makes one of it."));
    parser.addPositionalArgument(
        QStringLiteral("HOST:PORT"), QStringLiteral("The command port that the recorder prints."));
    parser.addPositionalArgument(QStringLiteral("COMMAND"), QStringLiteral("command:key=value;key=value"));
    constexpr char kTakes[] = "HOST:PORT and a command";
    if (const auto code = readOptions(parser, "send", arguments, {2, 2, kTakes}))
        return *code;
    const QString command = parser.positionalArguments().last();
    if (command.trimmed().isEmpty()) {
        Output::complain(QStringLiteral("send takes %1, which is not empty").arg(QLatin1String(kTakes)));
        return Exit::kUsage;
    }
    QString host;
    unsigned short port = 0;
    if (!parseAddress(parser.positionalArguments().first(), &host, &port))
        return Exit::kUsage;
    CommandClient client(host, port, [](const QByteArray& body) {
        Output::write(body);
        QCoreApplication::exit(Exit::kOk);
    });
    client.ask(command);
    return QCoreApplication::exec();
}
