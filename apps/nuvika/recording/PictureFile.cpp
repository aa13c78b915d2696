#include "PictureFile.h"

#include <QtCore/QFile>

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr mode_t kMode = 0666; // less the user's mask

// One file on its way; keeps the first error.
class Part
{
public:
    Part(const QString& folder, const QString& name)
        : m_whole(QFile::encodeName(folder + QLatin1Char('/') + name)),
          m_part(QFile::encodeName(folder + QLatin1String("/.") + name + QLatin1String(".part"))),
          m_nDescriptor(::open(m_part.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kMode))
    {
        note(m_nDescriptor >= 0);
    }
    Part(Part&& other) noexcept
        : m_whole(std::move(other.m_whole)), m_part(std::move(other.m_part)),
          m_nDescriptor(std::exchange(other.m_nDescriptor, -1)), m_nError(other.m_nError)
    {
    }
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    Part& operator=(Part&&) = delete;
    ~Part()
    {
        if (m_nDescriptor >= 0)
            ::close(m_nDescriptor);
    }

    void write(const QByteArray& bytes)
    {
        for (int at = 0; at < bytes.size() && m_nError == 0;) {
            const auto taken
                = ::write(m_nDescriptor, bytes.constData() + at, static_cast<std::size_t>(bytes.size() - at));
            note(taken >= 0 || errno == EINTR);
            at += taken < 0 ? 0 : static_cast<int>(taken);
        }
    }
    // The reason, or nothing.
    QString finish()
    {
        if (m_nDescriptor < 0)
            return qt_error_string(m_nError);
        // File systems that put off their work, those of a network above all, tell only now that they cannot.
        note(m_nError != 0 || ::fdatasync(m_nDescriptor) == 0);
        note(::close(std::exchange(m_nDescriptor, -1)) == 0);
        note(m_nError != 0 || ::rename(m_part.constData(), m_whole.constData()) == 0);
        if (m_nError == 0)
            return QString();
        ::unlink(m_part.constData());
        return qt_error_string(m_nError);
    }

private:
    void note(bool bDone)
    {
        if (!bDone && m_nError == 0)
            m_nError = errno;
    }

    QByteArray m_whole;
    QByteArray m_part;
    int m_nDescriptor;
    int m_nError = 0;
};
} // namespace

void writePictureFiles(const QString& folder, std::vector<PictureFile>* files)
{
    std::vector<Part> parts;
    parts.reserve(files->size());
    for (const PictureFile& file : *files) {
        parts.emplace_back(folder, file.name);
        parts.back().write(file.bytes);
    }
    for (std::size_t i = 0; i < parts.size(); ++i)
        (*files)[i].problem = parts[i].finish();
}
