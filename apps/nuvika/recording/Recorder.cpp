#include "Recorder.h"

#include <KepNuvikaUtil/CreateDbId.h>

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace
{
double unixMs(const NTPTimestamp& t) { return t.toUnixTime() * 1000; }

// Times in milliseconds since 1970, by the camera's clock.
QJsonObject mediaJson(const CameraMedia& media)
{
    const RtpReceiver* receiver = media.receiver();
    if (receiver == nullptr)
        return QJsonObject();
    QJsonArray rates;
    for (const double rate : media.rates())
        rates.append(rate);
    QJsonArray periods;
    const std::list<NTPRange> recorded = receiver->timeline().recorded();
    for (const NTPRange& range : recorded)
        periods.append(QJsonArray{unixMs(range.begin()), unixMs(range.end())});
    const RtpReceiver::Figures& figures = receiver->figures();
    return {
        {QStringLiteral("rates"), rates},
        {QStringLiteral("loss"), figures.lossPercent},
        {QStringLiteral("packets"), static_cast<double>(figures.allPackets)},
        {QStringLiteral("lost"), static_cast<double>(figures.allLost)},
        {QStringLiteral("now"), unixMs(receiver->timeline().senderClock())},
        {QStringLiteral("periods"), periods},
        {QStringLiteral("gaps"), static_cast<int>(receiver->timeline().gaps().size())},
    };
}
} // namespace

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
    m_cameras.push_back(std::make_unique<CameraStream>(name, target));
    connect(m_cameras.back().get(), &CameraStream::picture, this, [this, number](const QByteArray& jpeg) {
        showPicture(number, jpeg);
        if (m_folder)
            save(number, jpeg);
    });
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

const RtpReceiver* Recorder::rtp(int camera) const
{
    const CameraMedia* own = media(camera);
    return own == nullptr ? nullptr : own->receiver();
}

bool Recorder::saveTo(const QString& folder)
{
    m_folder = std::make_unique<QDir>(folder);
    return m_folder->mkpath(QStringLiteral("."));
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

CameraStream::Sample Recorder::total() const
{
    CameraStream::Sample sum{0, 0};
    for (const auto& camera : m_cameras) {
        sum.pictures += camera->current().pictures;
        sum.bytes += camera->current().bytes;
    }
    return sum;
}

void Recorder::showPicture(int camera, const QByteArray& jpeg)
{
    QList<QPointer<HttpResponseClient>>& viewers = m_viewers[camera];
    for (int i = viewers.size() - 1; i >= 0; --i) {
        HttpResponseClient* viewer = viewers.at(i);
        if (viewer == nullptr || !viewer->isConnected())
            viewers.removeAt(i);
        else if (viewer->canSendContent())
            WebServer::sendPicture(*viewer, jpeg);
        else
            ++m_nSkipped;
    }
}

void Recorder::save(int camera, const QByteArray& jpeg)
{
    const QString time = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    const CameraStream& stream = *m_cameras.at(static_cast<std::size_t>(camera));
    QFile file(
        m_folder->filePath(QStringLiteral("camera%1-%2-%3.jpg")
                               .arg(QString::number(camera + 1), time, QString::number(stream.pictures()))));
    if (!file.open(QIODevice::WriteOnly) || file.write(jpeg) != jpeg.size())
        ++m_nUnsaved;
}

void Recorder::handle(HttpResponseClient& connection, const HttpRequestHeader& request)
{
    const QString path = request.path().section(QLatin1Char('?'), 0, 0);
    const int camera = path.section(QLatin1Char('/'), 2, 2).toInt();
    const bool bKnown = camera >= 1 && camera <= static_cast<int>(m_cameras.size());
    if (path == QLatin1String("/")) {
        m_server.answer(connection, 200, m_page, "text/html; charset=utf-8");
    } else if (path == QLatin1String("/state.json")) {
        m_server.answer(connection, 200, stateJson(), "application/json");
    } else if (path.startsWith(QLatin1String("/live/")) && bKnown) {
        WebServer::beginPictures(connection);
        m_viewers[camera - 1].append(&connection);
        const QByteArray& last = m_cameras[static_cast<std::size_t>(camera - 1)]->lastPicture();
        if (!last.isEmpty())
            WebServer::sendPicture(connection, last);
    } else if (path.startsWith(QLatin1String("/picture/")) && bKnown
        && !m_cameras[static_cast<std::size_t>(camera - 1)]->lastPicture().isEmpty()) {
        m_server.answer(
            connection, 200, m_cameras[static_cast<std::size_t>(camera - 1)]->lastPicture(), "image/jpeg");
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

QByteArray Recorder::stateJson() const
{
    QJsonArray list;
    for (const auto& camera : m_cameras) {
        QJsonArray pictures;
        QJsonArray bits;
        for (const CameraStream::Sample& sample : camera->history()) {
            pictures.append(sample.pictures);
            bits.append(sample.bytes * 8);
        }
        QJsonObject entry{
            {QStringLiteral("id"), identifier(list.size())},
            {QStringLiteral("name"), camera->name()},
            {QStringLiteral("address"), camera->address()},
            {QStringLiteral("state"), camera->state()},
            {QStringLiteral("receiving"), camera->isReceiving()},
            {QStringLiteral("pictures"), static_cast<double>(camera->pictures())},
            {QStringLiteral("interruptions"), camera->interruptions()},
            {QStringLiteral("pictureRates"), pictures},
            {QStringLiteral("bitRates"), bits},
        };
        if (const CameraMedia* own = media(list.size()))
            entry.insert(QStringLiteral("rtp"), mediaJson(*own));
        list.append(entry);
    }
    const QJsonObject state{
        {QStringLiteral("cameras"), list}, {QStringLiteral("skipped"), static_cast<double>(m_nSkipped)}};
    return QJsonDocument(state).toJson(QJsonDocument::Compact);
}
