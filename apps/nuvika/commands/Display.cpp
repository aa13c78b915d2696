#include "Display.h"

#include "recording/Recorder.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace
{
constexpr int kMaxRows = 20;

double megabits(double bytes) { return bytes * 8 / 1e6; }

// The figures of all RTP streams together; empty without any.
QString rtpTotal(const Recorder& recorder)
{
    double rate = 0;
    unsigned int packets = 0;
    unsigned int lost = 0;
    bool bAny = false;
    for (int i = 0; i < static_cast<int>(recorder.cameras().size()); ++i) {
        if (const RtpReceiver* rtp = recorder.rtp(i)) {
            bAny = true;
            rate += rtp->figures().megabits;
            packets += rtp->figures().packets;
            lost += rtp->figures().lost;
        }
    }
    const double loss = packets + lost == 0 ? 0.0 : 100.0 * lost / (packets + lost);
    return bAny ? QStringLiteral("  RTP %1 Mbit/s, %2 % lost").arg(rate, 0, 'f', 2).arg(loss, 0, 'f', 2)
                : QString();
}
} // namespace

Display::Display() : m_bTerminal(isatty(STDOUT_FILENO) == 1) { }

void Display::show(const Recorder& recorder, int seconds)
{
    const auto& cameras = recorder.cameras();
    const CameraStream::Sample total = recorder.total();
    if (!m_bTerminal) {
        std::printf("%4d s  %d of %d cameras receiving  %6.1f pictures/s  %7.2f Mbit/s%s\n", seconds,
            recorder.receivingCameras(), static_cast<int>(cameras.size()), total.pictures,
            megabits(total.bytes), qUtf8Printable(rtpTotal(recorder)));
        std::fflush(stdout);
        return;
    }
    if (m_nLines > 0)
        std::printf("\x1b[%dA", m_nLines);
    m_nLines = 0;
    const auto line = [this](const QString& text) {
        std::printf("\x1b[2K%s\n", qUtf8Printable(text));
        ++m_nLines;
    };
    line(QStringLiteral("%1 %2 %3 %4 %5 %6  %7")
             .arg(QStringLiteral("camera"), -14)
             .arg(QStringLiteral("pictures"), 9)
             .arg(QStringLiteral("per s"), 7)
             .arg(QStringLiteral("Mbit/s"), 8)
             .arg(QStringLiteral("RTP Mbit/s"), 11)
             .arg(QStringLiteral("lost %"), 7)
             .arg(QStringLiteral("state")));
    const std::size_t rows = std::min<std::size_t>(cameras.size(), kMaxRows);
    for (std::size_t i = 0; i < rows; ++i) {
        const CameraStream& camera = *cameras[i];
        const RtpReceiver* rtp = recorder.rtp(static_cast<int>(i));
        line(QStringLiteral("%1 %2 %3 %4 %5 %6  %7")
                 .arg(camera.name(), -14)
                 .arg(camera.pictures(), 9)
                 .arg(camera.current().pictures, 7, 'f', 0)
                 .arg(megabits(camera.current().bytes), 8, 'f', 2)
                 .arg(rtp != nullptr ? QString::number(rtp->figures().megabits, 'f', 2) : QStringLiteral("-"),
                     11)
                 .arg(rtp != nullptr ? QString::number(rtp->figures().lossPercent, 'f', 2)
                                     : QStringLiteral("-"),
                     7)
                 .arg(camera.state()));
    }
    if (rows < cameras.size())
        line(QStringLiteral("... and %1 more").arg(cameras.size() - rows));
    line(QStringLiteral("%1 of %2 receiving, %3 pictures/s, %4 Mbit/s, %5 s")
             .arg(recorder.receivingCameras())
             .arg(cameras.size())
             .arg(total.pictures, 0, 'f', 0)
             .arg(megabits(total.bytes), 0, 'f', 2)
             .arg(seconds));
    std::fflush(stdout);
}

void Display::summary(const Recorder& recorder, int seconds)
{
    quint64 pictures = 0;
    quint64 bytes = 0;
    int interruptions = 0;
    for (const auto& camera : recorder.cameras()) {
        pictures += camera->pictures();
        bytes += camera->bytes();
        interruptions += camera->interruptions();
        if (camera->pictures() == 0)
            std::printf("%s delivered nothing: %s\n", qUtf8Printable(camera->name()),
                qUtf8Printable(camera->state()));
    }
    for (int i = 0; i < static_cast<int>(recorder.cameras().size()); ++i) {
        const RtpReceiver* rtp = recorder.rtp(i);
        if (rtp != nullptr && (rtp->figures().allLost > 0 || rtp->figures().allPackets == 0))
            std::printf("%s by RTP: %llu packets, %llu lost, %d gaps in what was recorded\n",
                qUtf8Printable(recorder.cameras()[static_cast<std::size_t>(i)]->name()),
                static_cast<unsigned long long>(rtp->figures().allPackets),
                static_cast<unsigned long long>(rtp->figures().allLost),
                static_cast<int>(rtp->timeline().gaps().size()));
    }
    std::printf("%d seconds, %d cameras, %llu pictures, %.1f MB, %d interruptions\n", seconds,
        static_cast<int>(recorder.cameras().size()), static_cast<unsigned long long>(pictures),
        static_cast<double>(bytes) / 1e6, interruptions);
    if (recorder.unsavedPictures() > 0)
        std::printf("%llu pictures could not be saved\n",
            static_cast<unsigned long long>(recorder.unsavedPictures()));
    std::fflush(stdout);
}
