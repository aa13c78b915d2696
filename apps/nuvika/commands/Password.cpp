#include "Password.h"

#include "base/Exit.h"
#include "base/Options.h"
#include "base/Output.h"

#include <KepNuvikaUtil/StrHlp.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QFile>

#include <unistd.h>

namespace
{
constexpr qint64 kLongestPassword = 65536;
constexpr qint64 kLongestMarked = 4 * kLongestPassword; // what such a password becomes is shorter

// One line of standard input, without its end; a password on a command line would be there for everybody to
// see. Bytes that would not come back as they are make no password.
int readLine(qint64 longest, QString* line)
{
    QFile input;
    QByteArray bytes;
    if (input.open(STDIN_FILENO, QIODevice::ReadOnly)) // by its stdio handle it would end lines at zero bytes
        bytes = input.readLine(longest + 3); // its end, and the zero that Qt adds
    if (bytes.endsWith('\n'))
        bytes.chop(bytes.endsWith("\r\n") ? 2 : 1);
    *line = QString::fromUtf8(bytes);
    if (bytes.isEmpty()) {
        Output::complain(QStringLiteral("nothing on standard input"));
        return Exit::kRead;
    }
    QString refused;
    if (bytes.size() > longest)
        refused = QStringLiteral("the line is longer than %1 bytes").arg(longest);
    else if (bytes.contains('\0'))
        refused = QStringLiteral("the line holds a zero byte");
    else if (line->toUtf8() != bytes)
        refused = QStringLiteral("the line is not plain UTF-8");
    if (!refused.isEmpty())
        Output::complain(refused);
    return refused.isEmpty() ? Exit::kOk : Exit::kFailure;
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
    parser.addPositionalArgument(QStringLiteral("encode|decode"), QStringLiteral("Which way."));
    constexpr char kTakes[] = "encode or decode, and the text from standard input";
    if (const auto code = readOptions(parser, "password", arguments, {1, 1, kTakes}))
        return *code;
    const QString way = parser.positionalArguments().first();
    const bool bEncode = way == QLatin1String("encode");
    if (!bEncode && way != QLatin1String("decode")) {
        Output::complain(QStringLiteral("password takes %1").arg(QLatin1String(kTakes)));
        return Exit::kUsage;
    }
    QString line;
    if (const int code = readLine(bEncode ? kLongestPassword : kLongestMarked, &line); code != Exit::kOk)
        return code;
    const QString result = bEncode ? StrHlp::toHex(line) : StrHlp::fromHex(line);
    if (!bEncode && (result.isEmpty() || result == line)) {
        Output::complain(QStringLiteral("that is no marked hex string, or a damaged one"));
        return Exit::kFailure;
    }
    Output::write(result.toUtf8() + '\n');
    return Exit::kOk;
}
