#include "Display.h"

#include "base/Output.h"
#include "recording/Recorder.h"

#include <algorithm>

#include <unistd.h>

namespace
{
constexpr int kMaxRows = 20;

double megabits(double bytes) { return bytes * 8 / 1e6; }

// The figures of all RTP streams together; empty without any.
QString rtpTotal(const Recorder& recorder)
{
    double rate = 0;
    quint64 packets = 0;
    quint64 lost = 0;
    bool bAny = false;
    for (int i = 0; i < static_cast<int>(recorder.cameras().size()); ++i) {
        if (const StreamRecord* rtp = recorder.rtp(i)) {
            bAny = true;
            rate += rtp->figures().megabits;
            packets += rtp->figures().packets;
            lost += rtp->figures().lost;
        }
    }
    const double loss
        = packets + lost == 0 ? 0.0 : 100.0 * static_cast<double>(lost) / static_cast<double>(packets + lost);
    return bAny ? QString::asprintf("  RTP %.2f Mbit/s, %.2f %% lost", rate, loss) : QString();
}

// A name in a column, as wide as its characters.
QByteArray column(const QString& name)
{
    constexpr int kWidth = 14;
    return QString::fromUtf8(Output::shown(name)).leftJustified(kWidth).toUtf8();
}

// What is worth a line: losses, silence where pictures came, and that nothing was saved.
void summariseStream(const Recorder& recorder, int number)
{
    const Camera& camera = *recorder.cameras()[static_cast<std::size_t>(number)];
    const QByteArray name = Output::shown(camera.name());
    if (recorder.isSaving() && !camera.format().isEmpty())
        Output::print("%s sends %s, of which no pictures are saved\n", name.constData(),
            Output::shown(camera.format()).constData());
    const StreamRecord* rtp = recorder.rtp(number);
    if (rtp == nullptr)
        return;
    const StreamRecord::Figures& f = rtp->figures();
    if (f.allLost > 0 || (f.allPackets == 0 && camera.pictures() > 0))
        Output::print("%s by RTP: %llu packets, %llu lost, %d gaps in what was recorded\n", name.constData(),
            static_cast<unsigned long long>(f.allPackets), static_cast<unsigned long long>(f.allLost),
            rtp->gaps());
}
} // namespace

Display::Display() : m_bTerminal(isatty(STDOUT_FILENO) == 1) { }

void Display::show(const Recorder& recorder, int seconds)
{
    if (m_bTerminal) {
        showTable(recorder, seconds);
    } else {
        const Camera::Sample total = recorder.total();
        const QString unsaved = recorder.saved().shown();
        Output::print("%4d s  %d of %d cameras receiving  %6.1f pictures/s  %7.2f Mbit/s%s%s\n", seconds,
            recorder.receivingCameras(), static_cast<int>(recorder.cameras().size()), total.pictures,
            megabits(total.bytes), qUtf8Printable(rtpTotal(recorder)),
            qUtf8Printable(unsaved.isEmpty() ? unsaved : QLatin1String("  ") + unsaved));
    }
    Output::flush();
}

void Display::showTable(const Recorder& recorder, int seconds)
{
    constexpr char kFormat[] = "\x1b[2K%s %9s %7s %8s %11s %7s  %s\n";
    Output::print("\x1b[?7l"); // a line that is too long is cut: it stays one
    if (m_nLines > 0)
        Output::print("\x1b[%dA", m_nLines);
    Output::print(kFormat, column(QStringLiteral("camera")).constData(), "pictures", "per s", "Mbit/s",
        "RTP Mbit/s", "lost %", "state");
    const auto& cameras = recorder.cameras();
    const std::size_t rows = std::min<std::size_t>(cameras.size(), kMaxRows);
    for (std::size_t i = 0; i < rows; ++i) {
        const Camera& camera = *cameras[i];
        const StreamRecord* rtp = recorder.rtp(static_cast<int>(i));
        Output::print(kFormat, column(camera.name()).constData(),
            QByteArray::number(camera.pictures()).constData(),
            QByteArray::number(camera.current().pictures, 'f', 0).constData(),
            QByteArray::number(megabits(camera.current().bytes), 'f', 2).constData(),
            rtp != nullptr ? QByteArray::number(rtp->figures().megabits, 'f', 2).constData() : "-",
            rtp != nullptr ? QByteArray::number(rtp->figures().lossPercent, 'f', 2).constData() : "-",
            Output::shown(camera.state()).constData());
    }
    m_nLines = static_cast<int>(rows) + 2;
    if (rows < cameras.size()) {
        Output::print("\x1b[2K... and %d more\n", static_cast<int>(cameras.size() - rows));
        ++m_nLines;
    }
    const Camera::Sample total = recorder.total();
    const QString unsaved = recorder.saved().shown();
    Output::print("\x1b[2K%d of %d receiving, %.0f pictures/s, %.2f Mbit/s, %d s%s\n",
        recorder.receivingCameras(), static_cast<int>(cameras.size()), total.pictures, megabits(total.bytes),
        seconds, qUtf8Printable(unsaved.isEmpty() ? unsaved : QLatin1String(", ") + unsaved));
    Output::print("\x1b[?7h");
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
        if (!camera->hasDelivered())
            Output::print("%s delivered nothing: %s\n", Output::shown(camera->name()).constData(),
                Output::shown(camera->state()).constData());
    }
    for (int i = 0; i < static_cast<int>(recorder.cameras().size()); ++i)
        summariseStream(recorder, i);
    for (const QString& problem : {recorder.mediaProblem(), recorder.saved().shown()}) {
        if (!problem.isEmpty())
            Output::print("%s\n", Output::shown(problem).constData());
    }
    Output::print("%d seconds, %d cameras, %llu pictures, %.1f MB, %d interruptions\n", seconds,
        static_cast<int>(recorder.cameras().size()), static_cast<unsigned long long>(pictures),
        static_cast<double>(bytes) / 1e6, interruptions);
}
