#include "WatchConfig.h"

#include <KepNuvikaUtil/CommandParsing.h>
#include <KepNuvikaUtil/StrHlp.h>

#include <QtCore/QFile>

namespace
{
constexpr qint64 kLargest = 1 << 20;
const QStringList& knownKeys()
{
    static const QStringList keys{
        QStringLiteral("name"), QStringLiteral("url"), QStringLiteral("user"), QStringLiteral("password")};
    return keys;
}

// The reason, or nothing.
QString readCamera(const QString& line, ConfiguredCamera* camera)
{
    QMap<QString, QVariant> params;
    parseDefinition(line, params, false); // a decoded password may hold what splits a line
    for (auto param = params.cbegin(); param != params.cend(); ++param) {
        if (!knownKeys().contains(param.key()))
            return QStringLiteral("\"%1\" is none of name, url, user, password").arg(param.key());
        if (!param.value().isValid())
            return QStringLiteral("\"%1\" has no value").arg(param.key());
    }
    const QString url = params.value(QStringLiteral("url")).toString();
    if (url.isEmpty())
        return QStringLiteral("a camera needs url=...");
    QString problem;
    if (!Target::parse(url, &camera->target, &problem))
        return problem;
    if (!camera->target.password.isEmpty())
        return QStringLiteral(
            "the password stands in the URL: use password=, made by nuvika password encode");
    camera->name = params.value(QStringLiteral("name")).toString();
    if (params.contains(QStringLiteral("user")))
        camera->target.user = params.value(QStringLiteral("user")).toString();
    if (!params.contains(QStringLiteral("password")))
        return QString();
    const QString password = params.value(QStringLiteral("password")).toString();
    if (!StrHlp::hasMk(password))
        return QStringLiteral("the password is no marked hex string: make one with nuvika password encode");
    camera->target.password = StrHlp::fromHex(password);
    if (camera->target.password.isEmpty() || camera->target.password == password)
        return QStringLiteral("the password's marked hex string is damaged");
    return QString();
}
} // namespace

bool readWatchConfig(const QString& name, std::vector<ConfiguredCamera>* cameras, QString* problem)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kLargest) {
        *problem = QStringLiteral("cannot read %1: %2")
                       .arg(name, file.isOpen() ? QStringLiteral("it is too large") : file.errorString());
        return false;
    }
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines.at(i).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        ConfiguredCamera camera;
        const QString reason = readCamera(line, &camera);
        if (!reason.isEmpty()) {
            *problem = QStringLiteral("%1, line %2: %3").arg(name, QString::number(i + 1), reason);
            return false;
        }
        cameras->push_back(camera);
    }
    if (cameras->empty())
        *problem = QStringLiteral("%1 names no camera").arg(name);
    return !cameras->empty();
}
