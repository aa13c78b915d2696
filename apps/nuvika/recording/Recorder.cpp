#include "Recorder.h"

#include "PictureFile.h"
#include "StateJson.h"
#include "cameras/PictureKind.h"

#include <KepNuvikaUtil/CreateDbId.h>

#include <QtCore/QDateTime>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>

Recorder::Recorder()
    : m_server([this](HttpResponseClient& connection, const HttpRequestHeader& request) {
          handle(connection, request);
      })
{
    QFile page(QStringLiteral(":/page.html"));
    if (page.open(QIODevice::ReadOnly))
        m_page = page.readAll();
}

void Recorder::addCamera(const QString& name, const Target& target)
{
    const int number = static_cast<int>(m_cameras.size());
    m_cameras.push_back(Camera::create(name, target));
    m_viewers.emplace_back();
    connect(m_cameras.back().get(), &Camera::picture, this,
        [this, number](const QByteArray& picture) { takePicture(number, picture); });
}

void Recorder::receiveMedia(const Target& target)
{
    m_media[static_cast<int>(m_cameras.size()) - 1] = std::make_unique<CameraMedia>(target);
}

const CameraMedia* Recorder::media(int camera) const
{
    const auto found = m_media.find(camera);
    return found == m_media.end() ? nullptr : found->second.get();
}

const StreamRecord* Recorder::rtp(int camera) const
{
    if (const StreamRecord* stream = m_cameras[static_cast<std::size_t>(camera)]->stream())
        return stream;
    const CameraMedia* own = media(camera);
    return own == nullptr || own->receiver() == nullptr ? nullptr : &own->receiver()->record();
}

bool Recorder::saveTo(const QString& folder, QString* problem)
{
    *problem = QStringLiteral("cannot save pictures in \"%1\"").arg(folder);
    if (folder.isEmpty() || !QDir().mkpath(folder) || !QFileInfo(folder).isWritable())
        return false;
    m_saver = std::make_unique<PictureSaver>(
        [folder](std::vector<PictureFile>* batch) { writePictureFiles(folder, batch); });
    return m_saver->start();
}

void Recorder::start()
{
    for (const auto& camera : m_cameras)
        camera->start();
    for (const auto& media : m_media)
        media.second->start();
}

void Recorder::tick()
{
    for (const auto& camera : m_cameras)
        camera->tick();
    for (Viewers& viewers : m_viewers) // also where no picture comes that would find them gone
        viewers.prune();
}

void Recorder::finish()
{
    if (m_saver)
        m_saver->finish();
    for (const auto& camera : m_cameras)
        camera->finish();
    for (const auto& media : m_media) {
        if (media.second->receiver() != nullptr)
            media.second->receiver()->finish();
    }
}

bool Recorder::haveAllDelivered() const
{
    return std::all_of(m_cameras.begin(), m_cameras.end(), [](const auto& camera) {
        return camera->hasDelivered();
    }) && std::all_of(m_media.begin(), m_media.end(), [](const auto& media) {
        const RtpReceiver* receiver = media.second->receiver();
        return receiver != nullptr && receiver->record().hasHeard();
    });
}

QString Recorder::mediaProblem() const
{
    int deaf = 0;
    QString why;
    for (const auto& media : m_media) {
        if (media.second->receiver() != nullptr)
            continue;
        ++deaf;
        why = media.second->problem();
    }
    return deaf == 0 ? QString()
                     : QStringLiteral("%1 of %2 RTP streams are not received: %3")
                           .arg(QString::number(deaf), QString::number(m_media.size()), why);
}

QString Recorder::identifier(int camera) const
{
    const QString& name = m_cameras[static_cast<std::size_t>(camera)]->name();
    return CreateDbId(name, camera + 1, DbIdType::eCAM).getDbId();
}

int Recorder::receivingCameras() const
{
    int count = 0;
    for (const auto& camera : m_cameras)
        count += camera->isReceiving() ? 1 : 0;
    return count;
}

Camera::Sample Recorder::total() const
{
    Camera::Sample sum{0, 0};
    for (const auto& camera : m_cameras) {
        sum.pictures += camera->current().pictures;
        sum.bytes += camera->current().bytes;
    }
    return sum;
}

void Recorder::takePicture(int camera, const QByteArray& picture)
{
    const PictureKind* kind = pictureKindOf(picture);
    m_nSkipped += static_cast<quint64>(m_viewers[static_cast<std::size_t>(camera)].send(picture, kind->type));
    if (!m_saver)
        return;
    const QString time = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    const quint64 count = m_cameras[static_cast<std::size_t>(camera)]->pictures();
    m_saver->save(
        QStringLiteral("camera%1-%2-%3.%4")
            .arg(QString::number(camera + 1), time, QString::number(count), QLatin1String(kind->ending)),
        picture);
}

void Recorder::handle(HttpResponseClient& connection, const HttpRequestHeader& request)
{
    if (!m_hosts.allow(request.value(QStringLiteral("Host")))) {
        m_server.answer(connection, 421, "this name is not served here\n", "text/plain");
        return;
    }
    const QString path = request.path().section(QLatin1Char('?'), 0, 0);
    const int number = path.section(QLatin1Char('/'), 2, 2).toInt();
    const bool bKnown = number >= 1 && number <= static_cast<int>(m_cameras.size());
    const auto camera = static_cast<std::size_t>(number) - 1;
    const QByteArray last = bKnown ? m_cameras[camera]->lastPicture() : QByteArray();
    if (path == QLatin1String("/")) {
        m_server.answer(connection, 200, m_page, "text/html; charset=utf-8");
    } else if (path == QLatin1String("/state.json")) {
        m_server.answer(connection, 200, stateJson(*this), "application/json");
    } else if (path.startsWith(QLatin1String("/live/")) && bKnown) {
        m_viewers[camera].add(connection);
        if (!last.isEmpty())
            WebServer::sendPicture(connection, last, pictureKindOf(last)->type);
    } else if (path.startsWith(QLatin1String("/picture/")) && !last.isEmpty()) {
        m_server.answer(connection, 200, last, pictureKindOf(last)->type);
    } else if (const CameraMedia* described = mediaOfPath(path)) {
        m_server.answer(connection, 200, described->description().toUtf8(), "application/sdp");
    } else {
        m_server.answer(connection, 404, "nothing here\n", "text/plain");
    }
}

// "/stream/1.sdp": the description of the first camera's RTP stream.
const CameraMedia* Recorder::mediaOfPath(const QString& path) const
{
    constexpr char kLead[] = "/stream/";
    if (!path.startsWith(QLatin1String(kLead)) || !path.endsWith(QLatin1String(".sdp")))
        return nullptr;
    return media(path.mid(static_cast<int>(sizeof kLead) - 1).chopped(4).toInt() - 1);
}
