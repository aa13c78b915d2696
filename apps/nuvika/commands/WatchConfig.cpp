#include "WatchConfig.h"

#include "base/Exit.h"
#include "base/Input.h"

#include <KepNuvikaUtil/CommandParsing.h>
#include <KepNuvikaUtil/StrHlp.h>

namespace
{
constexpr qint64 kLargest = 1 << 20;
const QStringList& knownKeys()
{
    static const QStringList keys{QStringLiteral("name"), QStringLiteral("url"), QStringLiteral("user"),
        QStringLiteral("password"), QStringLiteral("transport")};
    return keys;
}

// Takes the quotes and backslashes of a value away; equals signs are part of it. Nothing is decoded: a
// password may hold what splits a line.
QString plainValue(const QString& value)
{
    QStringList whole;
    parseSubStrings(value, &whole, QString(), true, false);
    return whole.value(0);
}

// The reason, or nothing.
QString readFields(const QString& line, QMap<QString, QString>* fields)
{
    QStringList items;
    parseSubStrings(line, &items, QStringLiteral(";"), true, false);
    for (const QString& item : qAsConst(items)) {
        const QString key = item.section(QLatin1Char('='), 0, 0).trimmed();
        const QString value = plainValue(item.section(QLatin1Char('='), 1));
        if (!knownKeys().contains(key))
            return QStringLiteral("\"%1\" is none of %2").arg(key, knownKeys().join(QStringLiteral(", ")));
        if (value.isEmpty())
            return QStringLiteral("\"%1\" has no value").arg(key);
        if (fields->contains(key))
            return QStringLiteral("\"%1\" stands twice").arg(key);
        fields->insert(key, value);
    }
    return QString();
}

// The reason, or nothing.
QString readCamera(const QString& line, ConfiguredCamera* camera)
{
    QMap<QString, QString> params;
    const QString mistake = readFields(line, &params);
    if (!mistake.isEmpty())
        return mistake;
    const QString url = params.value(QStringLiteral("url"));
    if (url.isEmpty())
        return QStringLiteral("a camera needs url=...");
    QString problem;
    if (!Target::parse(url, Target::eBoth, &camera->target, &problem))
        return problem;
    if (!camera->target.password.isEmpty())
        return QStringLiteral(
            "the password stands in the URL: use password=, made by nuvika password encode");
    const QString transport = params.value(QStringLiteral("transport"));
    if (!transport.isEmpty() && !camera->target.chooseTransport(transport, &problem))
        return problem;
    camera->name = params.value(QStringLiteral("name"));
    if (params.contains(QStringLiteral("user")))
        camera->target.user = params.value(QStringLiteral("user"));
    if (!params.contains(QStringLiteral("password")))
        return QString();
    const QString password = params.value(QStringLiteral("password"));
    if (!StrHlp::hasMk(password))
        return QStringLiteral("the password is no marked hex string: make one with nuvika password encode");
    camera->target.password = StrHlp::fromHex(password);
    if (camera->target.password.isEmpty() || camera->target.password == password)
        return QStringLiteral("the password's marked hex string is damaged");
    return QString();
}
} // namespace

int readWatchConfig(const QString& name, std::vector<ConfiguredCamera>* cameras, QString* problem)
{
    QByteArray bytes;
    if (!readInput(name, kLargest, &bytes, problem))
        return Exit::kRead;
    const QStringList lines = QString::fromUtf8(bytes).split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines.at(i).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        ConfiguredCamera camera;
        const QString reason = readCamera(line, &camera);
        if (!reason.isEmpty()) {
            *problem = QStringLiteral("%1, line %2: %3").arg(name, QString::number(i + 1), reason);
            return Exit::kUsage;
        }
        cameras->push_back(camera);
    }
    if (cameras->empty())
        *problem = QStringLiteral("%1 names no camera").arg(name);
    return cameras->empty() ? Exit::kUsage : Exit::kOk;
}
