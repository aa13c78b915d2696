#include "StreamFile.h"

#include <QtCore/QFile>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr mode_t kMode = 0666; // less the user's mask
} // namespace

StreamFile::~StreamFile()
{
    if (m_nDescriptor >= 0)
        ::close(m_nDescriptor);
}

// The first problem is the one that counts.
bool StreamFile::check(bool bDone)
{
    if (!bDone && m_problem.isEmpty())
        m_problem = QStringLiteral("cannot write \"%1\": %2").arg(m_name, qt_error_string(errno));
    return m_problem.isEmpty();
}

bool StreamFile::open(const QString& name)
{
    m_name = name;
    m_nDescriptor
        = ::open(QFile::encodeName(name).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode);
    return check(m_nDescriptor >= 0);
}

bool StreamFile::write(const char* unit, qint64 size)
{
    for (qint64 at = 0; at < size && m_problem.isEmpty();) {
        const auto taken = ::write(m_nDescriptor, unit + at, static_cast<std::size_t>(size - at));
        check(taken >= 0 || errno == EINTR);
        at += taken < 0 ? 0 : taken;
    }
    if (!m_problem.isEmpty()) {
        [[maybe_unused]] const int cut = ::ftruncate(m_nDescriptor, m_nBytes);
        return false;
    }
    ++m_nUnits;
    m_nBytes += size;
    return true;
}

bool StreamFile::finish()
{
    // File systems that put off their work tell only now that they cannot; pipes and devices know no disk.
    const bool bSynced = ::fdatasync(m_nDescriptor) == 0 || errno == EINVAL || errno == EROFS;
    check(bSynced);
    return check(::close(std::exchange(m_nDescriptor, -1)) == 0);
}
