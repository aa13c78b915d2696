#include "PictureFile.h"

#include <QtCore/QFile>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr mode_t kMode = 0666; // less the user's mask

bool writeAll(int descriptor, const QByteArray& bytes)
{
    for (int at = 0; at < bytes.size();) {
        const auto taken
            = ::write(descriptor, bytes.constData() + at, static_cast<std::size_t>(bytes.size() - at));
        if (taken < 0 && errno != EINTR)
            return false;
        at += taken < 0 ? 0 : static_cast<int>(taken);
    }
    // File systems that put off their work, over a network above all, tell only now that they cannot.
    return ::fdatasync(descriptor) == 0;
}

// 0, or errno.
int writeFile(const QByteArray& name, const QByteArray& bytes)
{
    const int descriptor = ::open(name.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode);
    if (descriptor < 0)
        return errno;
    const int error = writeAll(descriptor, bytes) ? 0 : errno;
    const bool bClosed = ::close(descriptor) == 0;
    return error == 0 && !bClosed ? errno : error;
}
} // namespace

QString writePictureFile(const QString& folder, const QString& name, const QByteArray& bytes)
{
    const QByteArray whole = QFile::encodeName(folder + QLatin1Char('/') + name);
    const QByteArray part = QFile::encodeName(folder + QLatin1String("/.") + name + QLatin1String(".part"));
    int error = writeFile(part, bytes);
    if (error == 0 && ::rename(part.constData(), whole.constData()) != 0)
        error = errno;
    if (error == 0)
        return QString();
    ::unlink(part.constData());
    return qt_error_string(error);
}
