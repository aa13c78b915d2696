#include "Rtp.h"

#include "base/Exit.h"
#include "base/Interrupt.h"
#include "base/Options.h"
#include "cameras/RtpReceiver.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace
{
constexpr qint64 kLargestDescription = 1 << 20;

// Descriptions are UTF-8 (RFC 8866). False with a message on standard error.
bool readDescription(const QString& name, QString* text)
{
    QFile file(name);
    const bool bOpen
        = name == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!bOpen) {
        std::fprintf(
            stderr, "nuvika: cannot read %s: %s\n", qUtf8Printable(name), qUtf8Printable(file.errorString()));
        return false;
    }
    *text = QString::fromUtf8(file.read(kLargestDescription));
    return true;
}

// The lines of one section, numbered as the file has them.
struct Section {
    std::vector<std::pair<int, QString>> lines;
};

std::vector<Section> sectionsOf(QString text)
{
    std::vector<Section> sections(1);
    int number = 0;
    const QStringList lines = text.remove(QLatin1Char('\r')).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        ++number;
        if (line.startsWith(QLatin1String("m=")))
            sections.emplace_back();
        if (!line.isEmpty())
            sections.back().lines.emplace_back(number, line);
    }
    return sections;
}

// Both have the same sections: a media line is always understood.
int reportDropped(const QString& given, const QString& understood)
{
    int dropped = 0;
    const std::vector<Section> all = sectionsOf(given);
    std::vector<Section> kept = sectionsOf(understood);
    for (std::size_t i = 0; i < all.size(); ++i) {
        auto& rest = kept.at(i).lines;
        for (const auto& line : all[i].lines) {
            const auto found = std::find_if(
                rest.begin(), rest.end(), [&line](const auto& other) { return other.second == line.second; });
            if (found != rest.end()) {
                rest.erase(found);
                continue;
            }
            std::fprintf(stderr, "line %d dropped: %s\n", line.first, qUtf8Printable(line.second));
            ++dropped;
        }
    }
    return dropped;
}

void show(const RtpReceiver& stream, int second)
{
    const RtpReceiver::Figures& f = stream.figures();
    const NTPTimestamp clock = stream.timeline().senderClock();
    std::printf("%4d s  %-20s  %8.3f Mbit/s  %6u packets  %5u lost (%.2f %%)  sender's clock %s\n", second,
        qUtf8Printable(stream.media().shown()), f.megabits, f.packets, f.lost, f.lossPercent,
        clock.isNull() ? "unknown yet" : qUtf8Printable(clock.toString(false) + QLatin1Char('Z')));
    std::fflush(stdout);
}

void summarise(const RtpReceiver& stream)
{
    const RtpReceiver::Figures& f = stream.figures();
    const quint64 sent = f.allPackets + f.allLost;
    std::printf("%s: %llu packets, %llu lost (%.2f %%), %u sender reports, %d gaps\n",
        qUtf8Printable(stream.media().shown()), static_cast<unsigned long long>(f.allPackets),
        static_cast<unsigned long long>(f.allLost),
        sent == 0 ? 0.0 : 100.0 * static_cast<double>(f.allLost) / static_cast<double>(sent), f.reports,
        static_cast<int>(stream.timeline().gaps().size()));
}
} // namespace

int runSdp(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Writes a session description as the library understands it to standard output,\n"
                       "and the lines that it dropped to standard error."));
    parser.addHelpOption();
    parser.addPositionalArgument(
        QStringLiteral("FILE"), QStringLiteral("An SDP file; - for standard input."));
    parser.process(arguments);
    if (parser.positionalArguments().size() != 1) {
        std::fprintf(stderr, "nuvika: sdp takes one file (nuvika sdp --help tells more)\n");
        return Exit::kUsage;
    }
    QString text;
    if (!readDescription(parser.positionalArguments().first(), &text))
        return Exit::kFile;
    SDP sdp = SDP::fromSDPString(text);
    const QString understood = sdp.toString();
    std::fputs(qUtf8Printable(understood), stdout);
    std::fflush(stdout);
    const int dropped = reportDropped(text, understood);
    std::fprintf(stderr, "%d session lines, %d time descriptions, %d media descriptions; %d lines dropped\n",
        sdp.getSessionParamNames().size(), sdp.getNumTimeDesc(), sdp.getNumMediaDesc(), dropped);
    return understood.isEmpty() ? Exit::kFailure : Exit::kOk;
}

int runRtp(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Receives the RTP streams that a session description names, and prints each second the rate, the "
        "loss,\n"
        "the packets and the sender's clock. Exit code 0 when every stream delivered packets."));
    parser.addHelpOption();
    parser.addOption(
        {QStringLiteral("seconds"), QStringLiteral("End after S seconds."), QStringLiteral("S")});
    parser.addOption({QStringLiteral("interface"),
        QStringLiteral("Receive over the interface with this address only."), QStringLiteral("ADDRESS")});
    parser.addPositionalArgument(
        QStringLiteral("FILE"), QStringLiteral("An SDP file; - for standard input."));
    parser.process(arguments);
    const int seconds = numberOf(parser, "seconds", 0, 1, 1000000);
    const QHostAddress interfaceAddress(parser.value(QStringLiteral("interface")));
    const bool bInterface = !parser.isSet(QStringLiteral("interface")) || !interfaceAddress.isNull();
    if (!bInterface)
        std::fprintf(stderr, "nuvika: --interface takes an IP address\n");
    if (parser.positionalArguments().size() != 1)
        std::fprintf(stderr, "nuvika: rtp takes one SDP file (nuvika rtp --help tells more)\n");
    if (seconds < 0 || !bInterface || parser.positionalArguments().size() != 1)
        return Exit::kUsage;
    QString text;
    if (!readDescription(parser.positionalArguments().first(), &text))
        return Exit::kFile;

    QStringList problems;
    const std::vector<MediaDescription> media = MediaDescription::of(SDP::fromSDPString(text), &problems);
    for (const QString& problem : problems)
        std::fprintf(stderr, "nuvika: %s\n", qUtf8Printable(problem));
    if (media.empty()) {
        std::fprintf(stderr, "nuvika: the description names no RTP stream\n");
        return Exit::kFailure;
    }
    std::vector<std::unique_ptr<RtpReceiver>> streams;
    QElapsedTimer elapsed;
    elapsed.start();
    for (const MediaDescription& m : media) {
        streams.push_back(std::make_unique<RtpReceiver>(m));
        const RtpReceiver& stream = *streams.back();
        QString problem;
        if (!streams.back()->open(interfaceAddress, &problem)) {
            std::fprintf(stderr, "nuvika: %s\n", qUtf8Printable(problem));
            return Exit::kFailure;
        }
        QObject::connect(&stream, &RtpReceiver::updated,
            [&stream, &elapsed] { show(stream, static_cast<int>((elapsed.elapsed() + 500) / 1000)); });
    }
    constexpr int kFiguresMs = 200; // the last second's figures come first
    if (seconds > 0)
        QTimer::singleShot(seconds * 1000 + kFiguresMs, [] { QCoreApplication::quit(); });
    const Interrupt interrupt([] { QCoreApplication::quit(); });
    std::printf("Receiving %d streams.\n", static_cast<int>(streams.size()));
    std::fflush(stdout);
    QCoreApplication::exec();
    for (const auto& stream : streams)
        summarise(*stream);
    const bool bAll = std::all_of(
        streams.begin(), streams.end(), [](const auto& stream) { return stream->figures().allPackets > 0; });
    return bAll ? Exit::kOk : Exit::kFailure;
}
