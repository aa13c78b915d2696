#include <KepNuvikaUtil/HttpContentRange.h>

#include <QtCore/QStringView>

#include <algorithm>

namespace
{
// Digits only, and no more than 64 bits hold.
bool readNumber(QStringView text, qint64* number)
{
    const auto isDigit = [](QChar c) { return c >= QLatin1Char('0') && c <= QLatin1Char('9'); };
    bool bFits = false;
    *number = text.toString().toLongLong(&bFits);
    return bFits && std::all_of(text.begin(), text.end(), isDigit);
}

bool readPart(QStringView text, HttpContentRange* range)
{
    const auto dash = std::find(text.begin(), text.end(), QLatin1Char('-')) - text.begin();
    return dash < text.size() && readNumber(text.left(dash), &range->first)
        && readNumber(text.mid(dash + 1), &range->last) && range->first <= range->last;
}
} // namespace

std::optional<HttpContentRange> HttpContentRange::fromHeader(const HttpResponseHeader& header)
{
    constexpr int kUnitSize = 6;
    const QStringList values = header.allValues(QStringLiteral("content-range"));
    if (values.size() != 1 || !values.first().startsWith(QLatin1String("bytes "), Qt::CaseInsensitive))
        return std::nullopt;
    const QStringView text = QStringView(values.first()).mid(kUnitSize);
    const auto slash = std::find(text.begin(), text.end(), QLatin1Char('/')) - text.begin();
    if (slash == text.size())
        return std::nullopt;
    const QStringView part = text.left(slash);
    const QStringView whole = text.mid(slash + 1);
    HttpContentRange range;
    const bool bTotal = readNumber(whole, &range.total);
    if (header.statusCode() == 416)
        return bTotal && part == QLatin1String("*") ? std::optional(range) : std::nullopt;
    if (header.statusCode() != 206 || !readPart(part, &range))
        return std::nullopt;
    if (!bTotal && whole != QLatin1String("*"))
        return std::nullopt;
    if (!bTotal)
        range.total = -1;
    return !bTotal || range.last < range.total ? std::optional(range) : std::nullopt;
}
