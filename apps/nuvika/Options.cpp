#include "Options.h"

#include <QtCore/QCommandLineParser>

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
