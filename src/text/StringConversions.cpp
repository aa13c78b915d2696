#include <KepNuvikaUtil/StringConversions.h>

#include <cwchar>

namespace
{
// Unsigned throughout: a value beyond the range wraps, which signed arithmetic must not.
unsigned int parseDigits(const QStringRef& ref, int start, bool* ok)
{
    unsigned int result = 0;
    bool bSuccess = true;
    for (int i = start; i < ref.size(); ++i) {
        const int digit = ref.at(i).digitValue();
        if (digit < 0) {
            result = 0;
            bSuccess = false;
            break;
        }
        result = result * 10 + static_cast<unsigned int>(digit);
    }
    if (ok != nullptr)
        *ok = bSuccess;
    return result;
}
} // namespace

std::wstring QStringToStd(const QString& s)
{
    std::wstring result;
    result.reserve(static_cast<std::size_t>(s.size()));
    for (const QChar unit : s)
        result.push_back(static_cast<wchar_t>(unit.unicode()));
    return result;
}

void QStringListToStd(const QStringList& list, std::vector<std::wstring>* out)
{
    out->clear();
    out->reserve(static_cast<std::size_t>(list.size()));
    for (const QString& s : list)
        out->push_back(QStringToStd(s));
}

QString QStringFromWChar(const wchar_t* s, int size)
{
    if (s == nullptr)
        return QString();
    const std::size_t count = size < 0 ? std::wcslen(s) : static_cast<std::size_t>(size);
    QString result;
    result.reserve(static_cast<int>(count));
    for (std::size_t i = 0; i < count; ++i) {
        const auto unit = static_cast<uint>(s[i]);
        if (QChar::requiresSurrogates(unit)) {
            result += QChar(QChar::highSurrogate(unit));
            result += QChar(QChar::lowSurrogate(unit));
        } else {
            result += QChar(unit);
        }
    }
    return result;
}

int QStringRefToInt32(const QStringRef& ref, bool* ok)
{
    const bool bNegative = !ref.isEmpty() && ref.at(0) == QLatin1Char('-');
    const unsigned int value = parseDigits(ref, bNegative ? 1 : 0, ok);
    return static_cast<int>(bNegative ? 0U - value : value);
}

unsigned int QStringRefToUInt32(const QStringRef& ref, bool* ok) { return parseDigits(ref, 0, ok); }
