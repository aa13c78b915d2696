// Writes the units of a camera's sound, one behind the other: rtsp_units URL FILE SECONDS
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QTimer>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    QFile file(arguments.value(2));
    if (arguments.size() != 4 || !file.open(QIODevice::WriteOnly))
        return 2;
    KepNuvikaUtilInit();

    RtspClient camera;
    QObject::connect(&camera, &RtspClient::unitReceived, [&camera, &file](int track, const RtspUnit& unit) {
        if (camera.tracks().at(track).media == QLatin1String("audio"))
            file.write(reinterpret_cast<const char*>(unit.pData), unit.nSize);
    });
    QObject::connect(&camera, &RtspClient::stopped, [] { QCoreApplication::exit(0); });
    QObject::connect(&camera, &RtspClient::error, [&camera] {
        std::fprintf(stderr, "%s\n", qPrintable(camera.errorString()));
        QCoreApplication::exit(1);
    });
    QTimer::singleShot(arguments.at(3).toInt() * 1000, &camera, &RtspClient::stop);
    camera.start(arguments.at(1));

    const int result = QCoreApplication::exec();
    KepNuvikaUtilCleanup();
    return result;
}
