// The library's side of the RTSP rows: an RtspClient for each session, all of one thread.
#include "RtspSessions.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    KepNuvikaUtilInit();
    RtspRow row(a);
    RtspOptions options;
    options.transport = isUdp(a) ? RtspOptions::eUdp : RtspOptions::eTcp;
    options.bUnits = a.variant == "units";
    options.timeouts.nFirstPacket = 0; // the row begins when all play
    options.timeouts.nSilence = 0;
    std::vector<std::unique_ptr<RtspClient>> clients;
    std::function<void()> openNext = [&] {
        const int number = static_cast<int>(clients.size());
        clients.push_back(std::make_unique<RtspClient>());
        RtspClient* client = clients.back().get();
        client->setOptions(options);
        QObject::connect(client, &RtspClient::packetReceived, [&row, number] { row.took(number); });
        QObject::connect(client, &RtspClient::playing, [&row, &openNext, number] {
            if (row.playing(number + 1))
                openNext();
        });
        QObject::connect(client, &RtspClient::error, [client] {
            std::fprintf(stderr, "%s\n", qPrintable(client->errorString()));
            std::_Exit(1);
        });
        client->start(QString::fromStdString(rtspUrl(a)));
    };
    openNext();
    return QCoreApplication::exec();
}
