#include "Password.h"

#include "base/Exit.h"

#include <KepNuvikaUtil/StrHlp.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QFile>

#include <cstdio>

namespace
{
constexpr qint64 kLongest = 65536;

// One line of standard input, without its end; a password on a command line would be there for everybody to
// see.
bool readLine(QString* line)
{
    QFile input;
    if (!input.open(stdin, QIODevice::ReadOnly))
        return false;
    QByteArray bytes = input.readLine(kLongest);
    while (bytes.endsWith('\n') || bytes.endsWith('\r'))
        bytes.chop(1);
    *line = QString::fromUtf8(bytes);
    return !line->isEmpty();
}
} // namespace

int runPassword(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Turns a password into a marked hex string for configuration files, or back. It reads one line from\n"
        "standard input. The key is the same in every copy of this program: the string keeps a password "
        "from\n"
        "a casual reader of a file, and from nobody who has this program."));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("encode|decode"), QStringLiteral("Which way."));
    parser.process(arguments);
    const QString way = parser.positionalArguments().value(0);
    const bool bEncode = way == QLatin1String("encode");
    if (parser.positionalArguments().size() != 1 || (!bEncode && way != QLatin1String("decode"))) {
        std::fprintf(stderr, "nuvika: password takes encode or decode, and the text from standard input\n");
        return Exit::kUsage;
    }
    QString line;
    if (!readLine(&line)) {
        std::fprintf(stderr, "nuvika: nothing on standard input\n");
        return Exit::kFile;
    }
    const QString result = bEncode ? StrHlp::toHex(line) : StrHlp::fromHex(line);
    if (!bEncode && (result.isEmpty() || result == line)) {
        std::fprintf(stderr, "nuvika: that is no marked hex string, or a damaged one\n");
        return Exit::kFailure;
    }
    std::printf("%s\n", qUtf8Printable(result));
    return Exit::kOk;
}
