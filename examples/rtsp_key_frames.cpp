// Prints the key frames of a camera: rtsp_key_frames rtsp://HOST/PATH [USER PASSWORD]
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 2 && arguments.size() != 4)
        return 2;
    KepNuvikaUtilInit(); // host lookups

    RtspClient camera;
    QObject::connect(&camera, &RtspClient::unitReceived, [&camera](int track, const RtspUnit& unit) {
        if (!unit.bKeyFrame)
            return;
        const RtpMediaParameters parameters = camera.parameters(track);
        std::printf("track %d, %s, %dx%d: a key frame of %d bytes, %lld ms from the start\n", track,
            parameters.codec.constData(), parameters.shownSize.width(), parameters.shownSize.height(),
            static_cast<int>(unit.nSize), static_cast<long long>(unit.time.presentationUs / 1000));
    });
    QObject::connect(&camera, &RtspClient::error, [&camera] {
        std::fprintf(stderr, "%s\n", qPrintable(camera.errorString()));
        QCoreApplication::exit(1);
    });
    camera.start(arguments.at(1), arguments.value(2), arguments.value(3));

    const int result = QCoreApplication::exec();
    KepNuvikaUtilCleanup();
    return result;
}
