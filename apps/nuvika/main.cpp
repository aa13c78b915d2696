// nuvika: the library's command-line tool and live demo.
#include "base/Descriptors.h"
#include "base/Exit.h"
#include "base/Output.h"
#include "commands/Control.h"
#include "commands/Get.h"
#include "commands/Password.h"
#include "commands/Rtp.h"
#include "commands/Rtsp.h"
#include "commands/Watch.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <clocale>
#include <csignal>
#include <cstdio>

namespace
{
constexpr char kUsage[] = R"(nuvika: cameras over HTTP(S) and RTP, by KepNuvikaUtil

  nuvika demo [--cameras N] [--loss PERCENT] ...       simulated cameras, a recorder and its page
  nuvika watch URL... [--config FILE] [--save DIR]     the same recorder on real cameras
  nuvika status HOST:PORT [--watch]                    a recorder's cameras, rates, losses, recorded periods
  nuvika send HOST:PORT COMMAND                        any command to a recorder, its answer to standard output
  nuvika password encode|decode                        a password as a marked hex string, for --config, and back
  nuvika rtsp URL [--tcp|--udp] [--save FILE]          what an RTSP camera offers, sends and does wrong
  nuvika rtp FILE.sdp [--seconds S]                    receives the RTP streams of a description
  nuvika sdp FILE                                      shows a description as it is understood
  nuvika get URL [-i] [--post FILE] [--put FILE]       one request to standard output
  (https and rtsps: --ca FILE, --cert FILE, --insecure)

nuvika COMMAND --help tells more. NUVIKA_LOG=1 in the environment shows the library's log.

Exit codes:
)";

using Command = int (*)(const QStringList&);

Command commandOf(const QString& name)
{
    if (name == QLatin1String("demo"))
        return &runDemo;
    if (name == QLatin1String("watch"))
        return &runWatch;
    if (name == QLatin1String("status"))
        return &runStatus;
    if (name == QLatin1String("send"))
        return &runSend;
    if (name == QLatin1String("password"))
        return &runPassword;
    if (name == QLatin1String("rtp"))
        return &runRtp;
    if (name == QLatin1String("rtsp"))
        return &runRtsp;
    if (name == QLatin1String("sdp"))
        return &runSdp;
    return name == QLatin1String("get") ? &runGet : nullptr;
}
} // namespace

int main(int argc, char** argv)
{
    Descriptors::holdStandardOnes();
    Descriptors::raiseLimit();
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow fails like a full disk
    QCoreApplication application(argc, argv);
    std::setlocale(LC_NUMERIC, "C"); // one decimal point, wherever a number was made
    QCoreApplication::setApplicationName(QStringLiteral("nuvika"));
    if (qEnvironmentVariableIsEmpty("NUVIKA_LOG"))
        QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    QStringList arguments = QCoreApplication::arguments();
    const QString name = arguments.size() > 1 ? arguments.takeAt(1) : QString();
    if (name == QLatin1String("--help") || name == QLatin1String("-h")) {
        Output::write(kUsage + Exit::table());
        return Output::finish(Exit::kOk);
    }
    const Command command = commandOf(name);
    if (command == nullptr) {
        std::fprintf(stderr, "%s%s", kUsage, Exit::table().constData());
        return Exit::kUsage;
    }
    KepNuvikaUtilInit();
    const int result = command(arguments);
    KepNuvikaUtilCleanup();
    return Output::finish(result);
}
