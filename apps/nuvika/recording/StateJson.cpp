#include "StateJson.h"

#include "Recorder.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace
{
double unixMs(const NTPTimestamp& t) { return t.toUnixTime() * 1000; }

// Times in milliseconds since 1970, by the camera's clock.
QJsonObject streamJson(const StreamRecord& stream)
{
    QJsonArray rates;
    for (const double rate : stream.rates())
        rates.append(rate);
    QJsonArray periods;
    for (const auto& period : stream.recorded().all())
        periods.append(QJsonArray{unixMs(period.first), unixMs(period.second)});
    const StreamRecord::Figures& figures = stream.figures();
    return {
        {QStringLiteral("rates"), rates},
        {QStringLiteral("loss"), figures.lossPercent},
        {QStringLiteral("packets"), static_cast<double>(figures.allPackets)},
        {QStringLiteral("lost"), static_cast<double>(figures.allLost)},
        {QStringLiteral("keyFrames"), static_cast<double>(figures.keyFrames)},
        {QStringLiteral("now"), unixMs(stream.newest())},
        {QStringLiteral("periods"), periods},
        {QStringLiteral("gaps"), stream.gaps()},
    };
}

QJsonObject cameraJson(const Recorder& recorder, int number)
{
    const Camera& camera = *recorder.cameras()[static_cast<std::size_t>(number)];
    QJsonArray pictures;
    QJsonArray bits;
    for (const Camera::Sample& sample : camera.history()) {
        pictures.append(sample.pictures);
        bits.append(sample.bytes * 8);
    }
    QJsonObject entry{
        {QStringLiteral("id"), recorder.identifier(number)},
        {QStringLiteral("name"), camera.name()},
        {QStringLiteral("address"), camera.address()},
        {QStringLiteral("state"), camera.state()},
        {QStringLiteral("format"), camera.format()},
        {QStringLiteral("receiving"), camera.isReceiving()},
        {QStringLiteral("pictures"), static_cast<double>(camera.pictures())},
        {QStringLiteral("interruptions"), camera.interruptions()},
        {QStringLiteral("viewers"), recorder.viewers(number)},
        {QStringLiteral("pictureRates"), pictures},
        {QStringLiteral("bitRates"), bits},
    };
    if (const StreamRecord* stream = recorder.rtp(number))
        entry.insert(QStringLiteral("rtp"), streamJson(*stream));
    else if (const CameraMedia* media = recorder.media(number))
        entry.insert(QStringLiteral("rtp"), QJsonObject{{QStringLiteral("problem"), media->problem()}});
    return entry;
}
} // namespace

QByteArray stateJson(const Recorder& recorder)
{
    QJsonArray list;
    for (int i = 0; i < static_cast<int>(recorder.cameras().size()); ++i)
        list.append(cameraJson(recorder, i));
    const QJsonObject state{
        {QStringLiteral("cameras"), list},
        {QStringLiteral("skipped"), static_cast<double>(recorder.skippedPictures())},
        {QStringLiteral("unsaved"), recorder.saved().shown()},
    };
    return QJsonDocument(state).toJson(QJsonDocument::Compact);
}
