#include "Options.h"

#include "Target.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QFileInfo>

#include <cstdio>

int numberOf(const QCommandLineParser& parser, const char* name, int fallback, int least, int most)
{
    const QString option = QLatin1String(name);
    if (!parser.isSet(option))
        return fallback;
    bool bNumber = false;
    const int value = parser.value(option).toInt(&bNumber);
    if (bNumber && value >= least && value <= most)
        return value;
    std::fprintf(stderr, "nuvika: --%s takes a number from %d to %d\n", name, least, most);
    return -1;
}

void addTlsOptions(QCommandLineParser& parser)
{
    parser.addOptions({
        {QStringLiteral("ca"),
            QStringLiteral("https: trust the certificates of FILE (PEM, or a folder), not the system's."),
            QStringLiteral("FILE")},
        {QStringLiteral("cert"), QStringLiteral("https: our certificate and its key (PEM)."),
            QStringLiteral("FILE")},
        {QStringLiteral("insecure"), QStringLiteral("https: whoever answers is believed.")},
    });
}

bool checkTlsOptions(const QCommandLineParser& parser)
{
    for (const char* option : {"ca", "cert"}) {
        const QString name = parser.value(QLatin1String(option));
        if (!name.isEmpty() && !QFileInfo(name).isReadable()) {
            std::fprintf(stderr, "nuvika: cannot read %s\n", qUtf8Printable(name));
            return false;
        }
    }
    return true;
}

void applyTlsOptions(const QCommandLineParser& parser, Target* target)
{
    target->trusted = parser.value(QStringLiteral("ca"));
    target->certificate = parser.value(QStringLiteral("cert"));
    target->bInsecure = parser.isSet(QStringLiteral("insecure"));
}
