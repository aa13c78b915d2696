// The library's side of the MJPEG rows: an HttpClient for each camera, as its users write it.
#include "Pictures.h"
#include "TunedBuffers.h"

#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

using namespace bench;

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("nuvika.*=false"));
    std::vector<std::unique_ptr<HttpClient>> cameras;
    for (int i = 0; i < a.connections; ++i) {
        cameras.push_back(std::make_unique<HttpClient>(QString::fromLatin1(farHost()), a.port, true));
        HttpClient* camera = cameras.back().get();
        QObject::connect(camera, &HttpClient::multipartReplaceContent,
            [&a](int, const HttpResponseHeader&, const char*, const char* picture, int size) {
                countPicture(a, picture, static_cast<std::size_t>(size));
            });
        QObject::connect(camera, &HttpClient::requestFailed, [] { std::exit(1); });
        QObject::connect(camera, &HttpClient::requestFinished, [] { std::exit(1); });
        leaveBuffersToTheKernel(*camera);
        camera->get(QStringLiteral("/pictures"), QString(), QString(), true);
    }
    return QCoreApplication::exec();
}
