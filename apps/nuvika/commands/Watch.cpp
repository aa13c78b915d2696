#include "Watch.h"

#include "Display.h"
#include "WatchConfig.h"
#include "base/Exit.h"
#include "base/Interrupt.h"
#include "base/Options.h"
#include "base/Output.h"
#include "recording/CommandServer.h"
#include "recording/Recorder.h"
#include "simulation/CameraThread.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>

namespace
{
constexpr int kDefaultPort = 8080;
constexpr int kSecondsWithoutTerminal = 20;
constexpr int kMaxCameras = 1000;

// What both commands are told of the recorder.
struct RecorderOptions {
    int port;
    int commandPort;
    int seconds; // 0: for ever
    QString rtsp; // where simulated cameras speak it
};

bool listen(Recorder& recorder, CommandServer& commands, const RecorderOptions& options)
{
    if (!recorder.listen(static_cast<unsigned short>(options.port))) {
        Output::complain(
            QStringLiteral("cannot listen on port %1: it is taken or not allowed (choose another "
                           "with --port)")
                .arg(options.port));
        return false;
    }
    if (!commands.listen(static_cast<unsigned short>(options.commandPort))) {
        Output::complain(QStringLiteral("cannot listen for commands on port %1").arg(options.commandPort));
        return false;
    }
    Output::print("The page with every camera: %s://127.0.0.1:%hu/\n", recorder.isTls() ? "https" : "http",
        recorder.port());
    Output::print("Commands (nuvika status, nuvika send): 127.0.0.1:%hu\n", commands.port());
    if (!options.rtsp.isEmpty())
        Output::print("The cameras by RTSP: %s\n", qUtf8Printable(options.rtsp));
    Output::flush();
    return true;
}

int runRecorder(Recorder& recorder, const RecorderOptions& options)
{
    CommandServer commands(recorder);
    if (!listen(recorder, commands, options))
        return Exit::kFailure;
    Display display;
    recorder.start();
    if (const QString problem = recorder.mediaProblem(); !problem.isEmpty())
        Output::complain(problem);
    int elapsed = 0;
    QTimer second;
    second.setTimerType(Qt::PreciseTimer);
    QObject::connect(&second, &QTimer::timeout, &second, [&] {
        ++elapsed;
        recorder.tick();
        display.show(recorder, elapsed);
        if (options.seconds > 0 && elapsed >= options.seconds)
            QCoreApplication::quit();
    });
    second.start(1000);
    const Interrupt interrupt([] { QCoreApplication::quit(); });
    QCoreApplication::exec();
    recorder.finish();
    display.summary(recorder, elapsed);
    if (recorder.saved().lost() > 0)
        return Exit::kWrite;
    return recorder.haveAllDelivered() || elapsed == 0 ? Exit::kOk : Exit::kFailure;
}

void addCommonOptions(QCommandLineParser& parser)
{
    parser.addOptions({
        {QStringLiteral("port"), QStringLiteral("Port of the page (0 takes a free one)."),
            QStringLiteral("P"), QString::number(kDefaultPort)},
        {QStringLiteral("command-port"),
            QStringLiteral("Port for nuvika status and nuvika send (0, the default, takes a free one)."),
            QStringLiteral("P")},
        {QStringLiteral("host"),
            QStringLiteral("The page answers to requests for NAME, too, not for localhost only; may stand "
                           "more than once."),
            QStringLiteral("NAME")},
        {QStringLiteral("page-cert"),
            QStringLiteral("The page comes over TLS, with the certificate and key of FILE (PEM)."),
            QStringLiteral("FILE")},
        {QStringLiteral("seconds"), QStringLiteral("End after S seconds, with a summary."),
            QStringLiteral("S")},
    });
}

// False with a message.
bool readCommonOptions(
    const QCommandLineParser& parser, int defaultSeconds, Recorder& recorder, RecorderOptions* options)
{
    options->port = numberOf(parser, "port", kDefaultPort, 0, 65535);
    options->commandPort = numberOf(parser, "command-port", 0, 0, 65535);
    options->seconds = numberOf(parser, "seconds", defaultSeconds, 1, 1000000);
    const QStringList hosts = parser.values(QStringLiteral("host"));
    for (const QString& host : hosts) {
        if (!recorder.answerTo(host)) {
            Output::complain(QStringLiteral("--host takes a name or an address, without a port"));
            return false;
        }
    }
    return options->port >= 0 && options->commandPort >= 0 && options->seconds >= 0;
}

// False with a message.
bool readPageCertificate(const QCommandLineParser& parser, Recorder& recorder)
{
    const QString option = QStringLiteral("page-cert");
    QString problem;
    if (!parser.isSet(option) || recorder.useTls(parser.value(option), &problem))
        return true;
    Output::complain(problem);
    return false;
}

// Those of the configuration file, then those of the command line. An exit code, with a message where it is
// not Exit::kOk.
int collectCameras(const QCommandLineParser& parser, std::vector<ConfiguredCamera>* cameras)
{
    QString problem;
    if (parser.isSet(QStringLiteral("config"))) {
        const int code = readWatchConfig(parser.value(QStringLiteral("config")), cameras, &problem);
        if (code != Exit::kOk) {
            Output::complain(problem);
            return code;
        }
    }
    const QStringList urls = parser.positionalArguments();
    for (const QString& url : urls) {
        ConfiguredCamera camera;
        if (!Target::parse(url, Target::eBoth, &camera.target, &problem)) {
            Output::complain(problem);
            return Exit::kUsage;
        }
        cameras->push_back(camera);
    }
    for (ConfiguredCamera& camera : *cameras)
        applyTlsOptions(parser, &camera.target);
    if (cameras->empty())
        Output::complain(QStringLiteral("watch takes the URLs of cameras (nuvika watch --help tells more)"));
    return cameras->empty() ? Exit::kUsage : Exit::kOk;
}

void addCameras(Recorder& recorder, const std::vector<ConfiguredCamera>& cameras)
{
    for (const ConfiguredCamera& camera : cameras) {
        const QString place = QStringLiteral("camera %1").arg(recorder.cameras().size() + 1);
        recorder.addCamera(camera.name.isEmpty() ? place : camera.name, camera.target);
    }
}

// Every fourth one is reached by RTSP.
void addSimulated(Recorder& recorder, const CameraThread& cameras)
{
    for (const unsigned short port : cameras.ports()) {
        const int number = static_cast<int>(recorder.cameras().size());
        Target target;
        target.bRtsp = number % 4 == 3;
        target.host = QStringLiteral("127.0.0.1");
        target.port = target.bRtsp ? cameras.rtspPort() : port;
        target.path = target.bRtsp ? QLatin1Char('/') + RtspServer::pathOf(number) : QStringLiteral("/live");
        target.user = QLatin1String(SimulatedCamera::kUser);
        target.password = QLatin1String(SimulatedCamera::kPassword);
        recorder.addCamera(QStringLiteral("camera %1").arg(number + 1), target);
        if (!target.bRtsp)
            recorder.receiveMedia(target);
    }
}

QString rtspPlaces(const CameraThread& cameras, int count)
{
    const QString first
        = QStringLiteral("rtsp://%1:%2@127.0.0.1:%3/%4")
              .arg(QLatin1String(SimulatedCamera::kUser), QLatin1String(SimulatedCamera::kPassword),
                  QString::number(cameras.rtspPort()), RtspServer::pathOf(0));
    return count == 1 ? first : first + QLatin1String(" to ") + RtspServer::pathOf(count - 1);
}
} // namespace

int runDemo(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Simulated network cameras and a recorder that shows them on a page.\n"
                       "Ends with Ctrl-C; exit code 0 when every camera delivered pictures and RTP."));
    addCommonOptions(parser);
    parser.addOptions({
        {QStringLiteral("cameras"), QStringLiteral("Number of cameras."), QStringLiteral("N"),
            QStringLiteral("4")},
        {QStringLiteral("multicast"), QStringLiteral("The cameras send RTP to groups, not to the recorder.")},
        {QStringLiteral("rtsp-port"),
            QStringLiteral("Port on which the cameras speak RTSP (0, the default, takes a free one)."),
            QStringLiteral("P")},
        {QStringLiteral("loss"), QStringLiteral("The first camera drops this share of its RTP packets."),
            QStringLiteral("PERCENT")},
    });
    if (const auto code = readOptions(parser, "demo", arguments, {0, 0, "options only"}))
        return *code;
    Recorder recorder;
    RecorderOptions options{};
    const int count = numberOf(parser, "cameras", 4, 1, kMaxCameras);
    SimulatedCamera::Media media;
    media.bMulticast = parser.isSet(QStringLiteral("multicast"));
    media.nLossPercent = numberOf(parser, "loss", 0, 0, 100);
    const int defaultSeconds = Display().isTerminal() ? 0 : kSecondsWithoutTerminal;
    if (!readCommonOptions(parser, defaultSeconds, recorder, &options) || count < 0 || media.nLossPercent < 0)
        return Exit::kUsage;
    if (!readPageCertificate(parser, recorder))
        return Exit::kRead;

    const int rtspPort = numberOf(parser, "rtsp-port", 0, 0, 65535);
    if (rtspPort < 0)
        return Exit::kUsage;
    const CameraThread cameras(count, media, static_cast<unsigned short>(rtspPort));
    if (static_cast<int>(cameras.ports().size()) < count) {
        Output::complain(QStringLiteral("camera %1 cannot listen: out of descriptors? (ulimit -Hn)")
                             .arg(cameras.ports().size() + 1));
        return Exit::kFailure;
    }
    if (cameras.rtspPort() == 0) {
        Output::complain(
            QStringLiteral("the cameras cannot listen on port %1 (choose another with --rtsp-port)")
                .arg(rtspPort));
        return Exit::kFailure;
    }
    addSimulated(recorder, cameras);
    options.rtsp = rtspPlaces(cameras, count);
    return runRecorder(recorder, options);
}

int runWatch(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Attaches to real cameras and shows them on a page, reconnecting for ever.\n"
        "A camera's URL names a stream of pictures (multipart/x-mixed-replace), a single picture, or an RTSP "
        "stream;\nof H.264 and H.265 key frames, rates and losses are shown, of JPEG the pictures."));
    addCommonOptions(parser);
    parser.addOptions({
        {QStringLiteral("save"), QStringLiteral("Keep every picture in DIR."), QStringLiteral("DIR")},
        {QStringLiteral("config"),
            QStringLiteral(
                "Take the cameras of FILE, one in each line: name=Gate;url=http://host/path;user=viewer;"
                "password=... (made by nuvika password encode); of rtsp:// URLs also transport=tcp, udp or "
                "multicast."),
            QStringLiteral("FILE")},
    });
    parser.addPositionalArgument(
        QStringLiteral("URL..."), QStringLiteral("http[s] or rtsp[s]://user:password@host:port/path"));
    addTlsOptions(parser);
    if (const auto code = readOptions(parser, "watch", arguments, {0, kMaxCameras, "the URLs of cameras"}))
        return *code;
    Recorder recorder;
    RecorderOptions options{};
    std::vector<ConfiguredCamera> cameras;
    if (!readCommonOptions(parser, 0, recorder, &options))
        return Exit::kUsage;
    if (const auto code = checkTlsOptions(parser))
        return *code;
    if (!readPageCertificate(parser, recorder))
        return Exit::kRead;
    if (const int code = collectCameras(parser, &cameras); code != Exit::kOk)
        return code;
    addCameras(recorder, cameras);
    QString problem;
    if (parser.isSet(QStringLiteral("save"))
        && !recorder.saveTo(parser.value(QStringLiteral("save")), &problem)) {
        Output::complain(problem);
        return Exit::kWrite;
    }
    return runRecorder(recorder, options);
}
