#include "Watch.h"

#include "Display.h"
#include "WatchConfig.h"
#include "base/Exit.h"
#include "base/Interrupt.h"
#include "base/Options.h"
#include "recording/CommandServer.h"
#include "recording/Recorder.h"
#include "simulation/SimulatedCamera.h"

#include <KepNuvikaUtil/SocketError.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <algorithm>
#include <cstdio>

namespace
{
constexpr int kDefaultPort = 8080;
constexpr int kSecondsWithoutTerminal = 20;
constexpr int kMaxCameras = 1000;

int runRecorder(Recorder& recorder, int port, int commandPort, int seconds)
{
    CommandServer commands(recorder);
    if (!recorder.listen(static_cast<unsigned short>(port))) {
        std::fprintf(stderr, "nuvika: cannot listen on port %d: %s (choose another with --port)\n", port,
            qUtf8Printable(QStringLiteral("it is taken or not allowed")));
        return Exit::kFailure;
    }
    if (!commands.listen(static_cast<unsigned short>(commandPort))) {
        std::fprintf(stderr, "nuvika: cannot listen for commands on port %d\n", commandPort);
        return Exit::kFailure;
    }
    std::printf("The page with every camera: http://127.0.0.1:%hu/\n", recorder.port());
    std::printf("Commands (nuvika status, nuvika send): 127.0.0.1:%hu\n", commands.port());
    std::fflush(stdout);
    Display display;
    recorder.start();
    int elapsed = 0;
    QTimer second;
    second.setTimerType(Qt::PreciseTimer);
    QObject::connect(&second, &QTimer::timeout, &second, [&] {
        ++elapsed;
        recorder.tick();
        display.show(recorder, elapsed);
        if (seconds > 0 && elapsed >= seconds)
            QCoreApplication::quit();
    });
    second.start(1000);
    const Interrupt interrupt([] { QCoreApplication::quit(); });
    QCoreApplication::exec();
    display.summary(recorder, elapsed);
    const auto& cameras = recorder.cameras();
    const bool bAll = std::all_of(
        cameras.begin(), cameras.end(), [](const auto& camera) { return camera->pictures() > 0; });
    return bAll || elapsed == 0 ? Exit::kOk : Exit::kFailure;
}

// The cameras live on a thread of their own, so that the recorder's thread does the recorder's work only.
class CameraThread : public QThread
{
public:
    CameraThread(int count, const SimulatedCamera::Media& media)
    {
        start();
        m_context.moveToThread(this);
        QMetaObject::invokeMethod(
            &m_context,
            [this, count, media] {
                for (int i = 0; i < count; ++i) {
                    m_cameras.push_back(std::make_unique<SimulatedCamera>(i, media));
                    if (!m_cameras.back()->listen())
                        return;
                    m_ports.push_back(m_cameras.back()->port());
                }
            },
            Qt::BlockingQueuedConnection);
    }
    ~CameraThread() override
    {
        QMetaObject::invokeMethod(
            &m_context, [this] { m_cameras.clear(); }, Qt::BlockingQueuedConnection);
        quit();
        wait();
    }
    const std::vector<unsigned short>& ports() const { return m_ports; }

private:
    QObject m_context;
    std::vector<std::unique_ptr<SimulatedCamera>> m_cameras;
    std::vector<unsigned short> m_ports;
};

void addCommonOptions(QCommandLineParser& parser)
{
    parser.addHelpOption();
    parser.addOptions({
        {QStringLiteral("port"), QStringLiteral("Port of the page (0 takes a free one)."),
            QStringLiteral("P"), QString::number(kDefaultPort)},
        {QStringLiteral("command-port"),
            QStringLiteral("Port for nuvika status and nuvika send (0, the default, takes a free one)."),
            QStringLiteral("P")},
        {QStringLiteral("seconds"), QStringLiteral("End after S seconds, with a summary."),
            QStringLiteral("S")},
    });
}

// Those of the configuration file, then those of the command line. False with a message.
bool collectCameras(const QCommandLineParser& parser, std::vector<ConfiguredCamera>* cameras)
{
    QString problem;
    const QString config = parser.value(QStringLiteral("config"));
    if (!config.isEmpty() && !readWatchConfig(config, cameras, &problem)) {
        std::fprintf(stderr, "nuvika: %s\n", qUtf8Printable(problem));
        return false;
    }
    const QStringList urls = parser.positionalArguments();
    for (const QString& url : urls) {
        ConfiguredCamera camera;
        if (!Target::parse(url, &camera.target, &problem)) {
            std::fprintf(stderr, "nuvika: %s\n", qUtf8Printable(problem));
            return false;
        }
        cameras->push_back(camera);
    }
    for (ConfiguredCamera& camera : *cameras)
        applyTlsOptions(parser, &camera.target);
    if (cameras->empty())
        std::fprintf(stderr, "nuvika: watch takes the URLs of cameras (nuvika watch --help tells more)\n");
    return !cameras->empty();
}
} // namespace

int runDemo(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Simulated network cameras and a recorder that shows them on a page.\n"
                       "Ends with Ctrl-C; exit code 0 when every camera delivered pictures."));
    addCommonOptions(parser);
    parser.addOptions({
        {QStringLiteral("cameras"), QStringLiteral("Number of cameras."), QStringLiteral("N"),
            QStringLiteral("4")},
        {QStringLiteral("multicast"), QStringLiteral("The cameras send RTP to groups, not to the recorder.")},
        {QStringLiteral("loss"), QStringLiteral("The first camera drops this share of its RTP packets."),
            QStringLiteral("PERCENT")},
    });
    parser.process(arguments);
    const int count = numberOf(parser, "cameras", 4, 1, kMaxCameras);
    const int port = numberOf(parser, "port", kDefaultPort, 0, 65535);
    const int commandPort = numberOf(parser, "command-port", 0, 0, 65535);
    const int seconds
        = numberOf(parser, "seconds", Display().isTerminal() ? 0 : kSecondsWithoutTerminal, 1, 1000000);
    SimulatedCamera::Media media;
    media.bMulticast = parser.isSet(QStringLiteral("multicast"));
    media.nLossPercent = numberOf(parser, "loss", 0, 0, 100);
    if (count < 0 || port < 0 || commandPort < 0 || seconds < 0 || media.nLossPercent < 0
        || !parser.positionalArguments().isEmpty())
        return Exit::kUsage;

    const CameraThread cameras(count, media);
    if (static_cast<int>(cameras.ports().size()) < count) {
        std::fprintf(stderr, "nuvika: camera %d cannot listen: out of descriptors? (ulimit -n)\n",
            static_cast<int>(cameras.ports().size()) + 1);
        return Exit::kFailure;
    }
    Recorder recorder;
    for (int i = 0; i < count; ++i) {
        Target target;
        target.host = QStringLiteral("127.0.0.1");
        target.port = cameras.ports().at(static_cast<std::size_t>(i));
        target.path = QStringLiteral("/live");
        target.user = QLatin1String(SimulatedCamera::kUser);
        target.password = QLatin1String(SimulatedCamera::kPassword);
        recorder.addCamera(QStringLiteral("camera %1").arg(i + 1), target);
        recorder.receiveMedia(target);
    }
    return runRecorder(recorder, port, commandPort, seconds);
}

int runWatch(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Attaches to real cameras and shows them on a page, reconnecting for ever.\n"
        "A camera's URL names a stream of pictures (multipart/x-mixed-replace) or a single picture."));
    addCommonOptions(parser);
    parser.addOptions({
        {QStringLiteral("save"), QStringLiteral("Keep every picture in DIR."), QStringLiteral("DIR")},
        {QStringLiteral("config"),
            QStringLiteral(
                "Take the cameras of FILE, one in each line: name=Gate;url=http://host/path;user=viewer;"
                "password=... (made by nuvika password encode)."),
            QStringLiteral("FILE")},
    });
    parser.addPositionalArgument(
        QStringLiteral("URL..."), QStringLiteral("http[s]://user:password@host:port/path"));
    addTlsOptions(parser);
    parser.process(arguments);
    if (!checkTlsOptions(parser))
        return Exit::kFile;
    const int port = numberOf(parser, "port", kDefaultPort, 0, 65535);
    const int commandPort = numberOf(parser, "command-port", 0, 0, 65535);
    const int seconds = numberOf(parser, "seconds", 0, 1, 1000000);
    std::vector<ConfiguredCamera> cameras;
    if (port < 0 || commandPort < 0 || seconds < 0 || !collectCameras(parser, &cameras))
        return Exit::kUsage;

    Recorder recorder;
    for (const ConfiguredCamera& camera : cameras) {
        const QString place = QStringLiteral("camera %1").arg(recorder.cameras().size() + 1);
        recorder.addCamera(camera.name.isEmpty() ? place : camera.name, camera.target);
    }
    if (parser.isSet(QStringLiteral("save")) && !recorder.saveTo(parser.value(QStringLiteral("save")))) {
        std::fprintf(stderr, "nuvika: cannot make the folder %s\n",
            qUtf8Printable(parser.value(QStringLiteral("save"))));
        return Exit::kFile;
    }
    return runRecorder(recorder, port, commandPort, seconds);
}
