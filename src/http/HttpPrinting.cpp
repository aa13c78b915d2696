// How heads are shown in logs.
#include <KepNuvikaUtil/HttpContentRange.h>
#include <KepNuvikaUtil/HttpFailure.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "core/Shown_p.h"

#include <array>

using namespace Nuvika;

namespace
{
// Of a field's name; challenges (WWW-Authenticate) are no secret.
bool isSecret(const QString& name)
{
    constexpr std::array<const char*, 6> kParts{"auth", "cookie", "token", "key", "pass", "secret"};
    if (name.contains(QLatin1String("-authenticat"), Qt::CaseInsensitive))
        return false;
    for (const char* part : kParts) {
        if (name.contains(QLatin1String(part), Qt::CaseInsensitive))
            return true;
    }
    return false;
}

QByteArray versionText(const HttpHeader& header)
{
    return "HTTP/" + QByteArray::number(header.majorVersion()) + '.'
        + QByteArray::number(header.minorVersion());
}

void showFields(Shown& shown, const HttpHeader& header)
{
    shown.when(!header.isValid(), "not valid");
    const auto fields = header.values();
    for (const auto& field : fields)
        shown(field.first + QLatin1String(": ")
            + (isSecret(field.first) ? QStringLiteral("...") : withoutSecrets(field.second)));
}
} // namespace

QDebug operator<<(QDebug debug, const HttpHeader& header)
{
    const auto* request = dynamic_cast<const HttpRequestHeader*>(&header);
    const auto* response = dynamic_cast<const HttpResponseHeader*>(&header);
    const QByteArray version = versionText(header);
    if (request != nullptr) {
        Shown shown(debug, "HttpRequestHeader");
        shown(request->method())(withoutSecrets(request->path()))(version.constData());
        showFields(shown, header);
    } else if (response != nullptr) {
        Shown shown(debug, "HttpResponseHeader");
        shown(version.constData())(response->statusCode())(response->reasonPhrase());
        showFields(shown, header);
    } else {
        Shown shown(debug, "HttpHeader");
        showFields(shown, header);
    }
    return debug;
}

QDebug operator<<(QDebug debug, const HttpFailure& failure)
{
    Shown shown(debug, "HttpFailure");
    shown.when(failure.reason == HttpFailure::eNone, "none");
    if (failure.reason != HttpFailure::eNone)
        shown(withoutSecrets(failure.text))("reason", static_cast<int>(failure.reason))("code", failure.code);
    return debug;
}

QDebug operator<<(QDebug debug, const HttpContentRange& range)
{
    Shown(debug, "HttpContentRange")("from", range.first)("to", range.last)("of", range.total);
    return debug;
}
