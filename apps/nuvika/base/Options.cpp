#include "Options.h"

#include "Exit.h"
#include "Output.h"
#include "Target.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QFileInfo>

std::optional<int> readOptions(
    QCommandLineParser& parser, const char* command, const QStringList& line, const Arguments& arguments)
{
    parser.addHelpOption();
    const bool bRead = parser.parse(line);
    if (bRead && (parser.isSet(QStringLiteral("help")) || parser.isSet(QStringLiteral("help-all")))) {
        Output::write(parser.helpText().toUtf8());
        return Exit::kOk;
    }
    const int given = parser.positionalArguments().size();
    if (bRead && given >= arguments.least && given <= arguments.most)
        return std::nullopt;
    QString mistake
        = QStringLiteral("%1 takes %2").arg(QLatin1String(command), QLatin1String(arguments.takes));
    if (!bRead) {
        mistake = parser.errorText();
        mistake = mistake.left(1).toLower() + mistake.mid(1);
        mistake.chop(mistake.endsWith(QLatin1Char('.')) ? 1 : 0);
    }
    Output::complain(QStringLiteral("%1 (nuvika %2 --help tells more)").arg(mistake, QLatin1String(command)));
    return Exit::kUsage;
}

int numberOf(const QCommandLineParser& parser, const char* name, int fallback, int least, int most)
{
    const QString option = QLatin1String(name);
    if (!parser.isSet(option))
        return fallback;
    bool bNumber = false;
    const int value = parser.value(option).toInt(&bNumber);
    if (bNumber && value >= least && value <= most)
        return value;
    Output::complain(QStringLiteral("--%1 takes a number from %2 to %3")
                         .arg(option, QString::number(least), QString::number(most)));
    return -1;
}

int millisecondsOf(const QCommandLineParser& parser, const char* name, int fallback)
{
    constexpr double kLongest = 1e6; // seconds: eleven days
    const QString option = QLatin1String(name);
    if (!parser.isSet(option))
        return fallback;
    bool bNumber = false;
    const double seconds = parser.value(option).toDouble(&bNumber);
    if (bNumber && seconds >= 0.001 && seconds <= kLongest)
        return static_cast<int>(seconds * 1000);
    Output::complain(QStringLiteral("--%1 takes seconds, from 0.001 to 1000000").arg(option));
    return -1;
}

void addTlsOptions(QCommandLineParser& parser)
{
    parser.addOptions({
        {QStringLiteral("ca"),
            QStringLiteral(
                "https, rtsps: trust the certificates of FILE (PEM, or a folder), not the system's."),
            QStringLiteral("FILE")},
        {QStringLiteral("cert"), QStringLiteral("https, rtsps: our certificate and its key (PEM)."),
            QStringLiteral("FILE")},
        {QStringLiteral("insecure"), QStringLiteral("https, rtsps: whoever answers is believed.")},
        {QStringLiteral("pin"),
            QStringLiteral("https, rtsps: believe the certificate with this SHA-256 (AA:BB:...), or the key "
                           "(sha256//BASE64), and no other. May be given again."),
            QStringLiteral("SHA256")},
    });
}

std::optional<int> checkTlsOptions(const QCommandLineParser& parser)
{
    for (const char* option : {"ca", "cert"}) {
        const QString name = parser.value(QLatin1String(option));
        if (parser.isSet(QLatin1String(option)) && !QFileInfo(name).isReadable()) {
            Output::complain(QStringLiteral("cannot read \"%1\"").arg(name));
            return Exit::kRead;
        }
    }
    for (const QString& text : parser.values(QStringLiteral("pin"))) {
        QString problem;
        if (TlsPin::fromText(text, &problem).isNull()) {
            Output::complain(problem);
            return Exit::kUsage;
        }
    }
    return std::nullopt;
}

void applyTlsOptions(const QCommandLineParser& parser, Target* target)
{
    target->trusted = parser.value(QStringLiteral("ca"));
    target->certificate = parser.value(QStringLiteral("cert"));
    for (const QString& text : parser.values(QStringLiteral("pin")))
        target->pins << TlsPin::fromText(text);
    target->bInsecure = parser.isSet(QStringLiteral("insecure"));
}
