#include "Rtp.h"

#include "base/Exit.h"
#include "base/Input.h"
#include "base/Interrupt.h"
#include "base/Options.h"
#include "base/Output.h"
#include "cameras/RtpReceiver.h"
#include "commands/MissingLines.h"
#include "commands/StreamLines.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>

#include <unistd.h>

namespace
{
constexpr qint64 kLargestDescription = 1 << 20;

// Descriptions are UTF-8 (RFC 8866). False with a message on standard error.
bool readDescription(const QString& name, QString* text)
{
    QByteArray bytes;
    QString problem;
    const bool bRead = readInput(name, kLargestDescription, &bytes, &problem);
    if (!bRead)
        Output::complain(problem);
    *text = QString::fromUtf8(bytes);
    return bRead;
}

// The lines of one section, numbered as the file has them.
struct Section {
    std::vector<int> numbers;
    std::vector<QString> lines;
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
        if (line.isEmpty())
            continue;
        sections.back().numbers.push_back(number);
        sections.back().lines.push_back(line);
    }
    return sections;
}

// The lines of `given` that `understood` lacks, section by section: a media line is always understood.
int reportDropped(const QString& given, const QString& understood)
{
    int dropped = 0;
    const std::vector<Section> all = sectionsOf(given);
    std::vector<Section> kept = sectionsOf(understood);
    kept.resize(std::max(kept.size(), all.size()));
    for (std::size_t i = 0; i < all.size(); ++i) {
        for (const std::size_t at : missingLines(all[i].lines, kept[i].lines)) {
            std::fprintf(stderr, "line %d dropped: %s\n", all[i].numbers[at],
                Output::shown(all[i].lines[at]).constData());
            ++dropped;
        }
    }
    return dropped;
}

// A terminal sees nothing that it would obey; a file or a program gets the description as it is.
void writeDescription(const QString& text)
{
    if (isatty(STDOUT_FILENO) != 1) {
        Output::write(text.toUtf8());
        return;
    }
    QStringList lines = text.split(QStringLiteral("\r\n"));
    lines.removeLast();
    for (const QString& line : qAsConst(lines))
        Output::write(Output::shown(line) + '\n');
}

// What time it is by the sender's clock.
QByteArray senderClock(const StreamRecord& record)
{
    if (!record.clockErrorUs())
        return "unknown yet";
    const qint64 us = QDateTime::currentMSecsSinceEpoch() * 1000 + *record.clockErrorUs();
    return StreamRecord::ntpOf(us).toString(false).toUtf8() + 'Z';
}

void show(const RtpReceiver& stream, int second)
{
    Output::write(secondLine(second, stream.media().shown(), stream.record()) + "sender's clock "
        + senderClock(stream.record()) + '\n');
    if (!Output::flush())
        QCoreApplication::exit(Exit::kOk);
}

using Streams = std::vector<std::unique_ptr<RtpReceiver>>;

// False with a message.
bool openStreams(const QString& text, const QHostAddress& interfaceAddress, Streams* streams)
{
    QStringList problems;
    const std::vector<MediaDescription> media = MediaDescription::of(SDP::fromSDPString(text), &problems);
    if (media.empty())
        problems.append(QStringLiteral("the description names no RTP stream"));
    for (const QString& problem : qAsConst(problems))
        Output::complain(problem);
    for (const MediaDescription& m : media) {
        streams->push_back(std::make_unique<RtpReceiver>(m));
        QString problem;
        if (!streams->back()->open(interfaceAddress, &problem)) {
            Output::complain(problem);
            return false;
        }
    }
    return !media.empty();
}

int receive(const Streams& streams, int seconds)
{
    QElapsedTimer elapsed;
    elapsed.start();
    for (const auto& stream : streams) {
        const RtpReceiver* receiver = stream.get();
        QObject::connect(receiver, &RtpReceiver::updated, receiver,
            [receiver, &elapsed] { show(*receiver, static_cast<int>((elapsed.elapsed() + 500) / 1000)); });
    }
    constexpr int kFiguresMs = 200; // the last second's figures come first
    if (seconds > 0)
        QTimer::singleShot(seconds * 1000 + kFiguresMs, [] { QCoreApplication::quit(); });
    const Interrupt interrupt([] { QCoreApplication::quit(); });
    Output::print("Receiving %d streams.\n", static_cast<int>(streams.size()));
    if (Output::flush())
        QCoreApplication::exec();
    bool bAll = true;
    for (const auto& stream : streams) {
        stream->disconnect();
        stream->finish();
        Output::write(summaryLine(stream->media().shown(), stream->record()) + '\n');
        bAll = bAll && stream->record().figures().allPackets > 0;
    }
    return bAll ? Exit::kOk : Exit::kFailure;
}
} // namespace

int runSdp(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Writes a session description as the library understands it to standard output,\n"
                       "and the lines that it dropped to standard error."));
    parser.addPositionalArgument(
        QStringLiteral("FILE"), QStringLiteral("An SDP file; - for standard input."));
    if (const auto code = readOptions(parser, "sdp", arguments, {1, 1, "one file"}))
        return *code;
    QString text;
    if (!readDescription(parser.positionalArguments().first(), &text))
        return Exit::kRead;
    SDP sdp = SDP::fromSDPString(text);
    const QString understood = sdp.toString();
    writeDescription(understood);
    Output::flush(); // before what was dropped
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
    parser.addOption(
        {QStringLiteral("seconds"), QStringLiteral("End after S seconds."), QStringLiteral("S")});
    parser.addOption({QStringLiteral("interface"),
        QStringLiteral("Receive over the interface with this address only."), QStringLiteral("ADDRESS")});
    parser.addPositionalArgument(
        QStringLiteral("FILE"), QStringLiteral("An SDP file; - for standard input."));
    if (const auto code = readOptions(parser, "rtp", arguments, {1, 1, "one SDP file"}))
        return *code;
    const int seconds = numberOf(parser, "seconds", 0, 1, 1000000);
    const QHostAddress interfaceAddress(parser.value(QStringLiteral("interface")));
    const bool bInterface = !parser.isSet(QStringLiteral("interface")) || !interfaceAddress.isNull();
    if (!bInterface)
        Output::complain(QStringLiteral("--interface takes an IP address"));
    if (seconds < 0 || !bInterface)
        return Exit::kUsage;
    QString text;
    if (!readDescription(parser.positionalArguments().first(), &text))
        return Exit::kRead;
    Streams streams;
    return openStreams(text, interfaceAddress, &streams) ? receive(streams, seconds) : Exit::kFailure;
}
