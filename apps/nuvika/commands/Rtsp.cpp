#include "Rtsp.h"

#include "RtspProbe.h"
#include "base/Exit.h"
#include "base/Interrupt.h"
#include "base/Options.h"
#include "base/Output.h"

#include <KepNuvikaUtil/StrHlp.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>

namespace
{
constexpr int kDefaultSeconds = 10;

void addOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral(
        "Plays from an RTSP camera, and prints what it offers, each second what it sends (rate, packets, "
        "losses),\n"
        "and at the end what is wrong and what to try. Exit code 0 when every track delivered packets.\n"
        "Without a transport UDP is tried, and TCP where that does not work."));
    parser.addPositionalArgument(
        QStringLiteral("URL"), QStringLiteral("rtsp[s]://user:password@host:port/path"));
    parser.addOptions({
        {QStringLiteral("tcp"), QStringLiteral("Over the connection itself.")},
        {QStringLiteral("udp"), QStringLiteral("Over UDP only.")},
        {QStringLiteral("multicast"), QStringLiteral("From the group that the camera names.")},
        {QStringLiteral("seconds"),
            QStringLiteral("Play for S seconds (0: until Ctrl-C; %1 without this).").arg(kDefaultSeconds),
            QStringLiteral("S")},
        {QStringLiteral("save"),
            QStringLiteral(
                "Write the first track of pictures to FILE, from its first key frame on: H.264 and "
                "H.265 as Annex B, JPEG as one picture behind the other."),
            QStringLiteral("FILE")},
        {QStringLiteral("user"), QStringLiteral("The user, where the URL names none."), QStringLiteral("U")},
        {QStringLiteral("password"),
            QStringLiteral("The password, plain or as nuvika password encode makes it."),
            QStringLiteral("P")},
        {{QStringLiteral("v"), QStringLiteral("verbose")},
            QStringLiteral("Show requests and answers, without credentials, on standard error.")},
    });
    addTlsOptions(parser);
}

// False with a message.
bool readTransport(const QCommandLineParser& parser, Target* camera)
{
    QString problem;
    int given = 0;
    for (const char* name : {"tcp", "udp", "multicast"}) {
        if (!parser.isSet(QLatin1String(name)))
            continue;
        camera->chooseTransport(QLatin1String(name), &problem);
        ++given;
    }
    if (given > 1)
        problem = QStringLiteral("rtsp takes one of --tcp, --udp and --multicast");
    if (!problem.isEmpty())
        Output::complain(problem);
    return problem.isEmpty();
}

void readLogin(const QCommandLineParser& parser, Target* camera)
{
    if (parser.isSet(QStringLiteral("user")))
        camera->user = parser.value(QStringLiteral("user"));
    if (!parser.isSet(QStringLiteral("password")))
        return;
    const QString password = parser.value(QStringLiteral("password"));
    camera->password = StrHlp::hasMk(password) ? StrHlp::fromHex(password) : password;
}

// An exit code, with a message where it is not Exit::kOk.
int readSettings(const QCommandLineParser& parser, RtspProbe::Settings* settings)
{
    QString problem;
    Target& camera = settings->camera;
    if (!Target::parse(parser.positionalArguments().first(), Target::eRtsp, &camera, &problem)) {
        Output::complain(problem);
        return Exit::kUsage;
    }
    if (const auto code = checkTlsOptions(parser))
        return *code;
    applyTlsOptions(parser, &camera);
    if (!readTransport(parser, &camera))
        return Exit::kUsage;
    readLogin(parser, &camera);
    settings->options = camera.rtspOptions();
    settings->seconds = numberOf(parser, "seconds", kDefaultSeconds, 0, 1000000);
    settings->saveTo = parser.value(QStringLiteral("save"));
    settings->bTrace = parser.isSet(QStringLiteral("verbose"));
    return settings->seconds >= 0 ? Exit::kOk : Exit::kUsage;
}
} // namespace

int runRtsp(const QStringList& arguments)
{
    QCommandLineParser parser;
    addOptions(parser);
    if (const auto code = readOptions(parser, "rtsp", arguments, {1, 1, "one URL"}))
        return *code;
    RtspProbe::Settings settings;
    if (const int code = readSettings(parser, &settings); code != Exit::kOk)
        return code;
    RtspProbe probe(settings);
    const Interrupt interrupt([&probe] { probe.finish(); });
    return probe.start() ? QCoreApplication::exec() : Exit::kWrite;
}
