#include "Input.h"

#include <QtCore/QFile>

#include <algorithm>

namespace
{
// In pieces: a large limit takes no memory by itself.
QByteArray readUpTo(QFile* file, qint64 most)
{
    constexpr qint64 kPiece = 65536;
    QByteArray bytes;
    while (bytes.size() < most) {
        const QByteArray piece = file->read(std::min(kPiece, most - bytes.size()));
        if (piece.isEmpty())
            break;
        bytes += piece;
    }
    return bytes;
}
} // namespace

bool readInput(const QString& name, qint64 most, QByteArray* bytes, QString* problem)
{
    QFile file(name);
    QString reason = QStringLiteral("it has no name");
    if (!name.isEmpty()) {
        const bool bOpen = name == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly)
                                                      : file.open(QIODevice::ReadOnly);
        *bytes = bOpen ? readUpTo(&file, most + 1) : QByteArray();
        if (file.error() == QFile::NoError && bytes->size() <= most)
            return true;
        reason = file.error() == QFile::NoError ? QStringLiteral("it is too large") : file.errorString();
    }
    *problem = QStringLiteral("cannot read \"%1\": %2").arg(name, reason);
    return false;
}
