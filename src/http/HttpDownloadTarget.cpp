#include "http/HttpDownloadTarget_p.h"

#include <QtCore/QBuffer>
#include <QtCore/QFileDevice>

#include <algorithm>
#include <utility>

using namespace Nuvika;

HttpDownloadTarget::HttpDownloadTarget(QIODevice* device)
    : m_pDevice(device), m_bSequential(device == nullptr || device->isSequential())
{
    isUsable();
}

bool HttpDownloadTarget::isUsable()
{
    if (m_pDevice.isNull())
        m_problem = QStringLiteral("the device to write to is gone");
    else if (!m_pDevice->isWritable())
        m_problem = QStringLiteral("the device to write to is not open for writing");
    return m_problem.isEmpty();
}

// What a lost answer has left behind goes: the next one may be shorter.
bool HttpDownloadTarget::begin()
{
    if (!isUsable())
        return false;
    if (std::exchange(m_nWritten, 0) == 0) {
        m_nStart = m_bSequential ? 0 : m_pDevice->pos();
        m_nSizeBefore = m_bSequential ? 0 : m_pDevice->size();
        return true;
    }
    if (m_bSequential || !m_pDevice->seek(m_nStart)) {
        m_problem = QStringLiteral("the device to write to cannot go back to where it stood");
        return false;
    }
    return cutTail();
}

bool HttpDownloadTarget::cutTail()
{
    const qint64 size = std::max(m_nStart, m_nSizeBefore);
    auto* file = qobject_cast<QFileDevice*>(m_pDevice.data());
    if (file != nullptr && !file->resize(size))
        m_problem = QLatin1String("the device to write to cannot be cut: ") + file->errorString();
    if (auto* buffer = qobject_cast<QBuffer*>(m_pDevice.data()))
        buffer->buffer().truncate(static_cast<int>(size));
    return m_problem.isEmpty();
}

bool HttpDownloadTarget::write(const char* data, int size)
{
    if (!isUsable())
        return false;
    const qint64 bytes = m_pDevice->write(data, size);
    m_nWritten += std::max<qint64>(bytes, 0);
    if (bytes != size)
        m_problem = QLatin1String("the answer cannot be written: ")
            + (m_pDevice.isNull() ? QStringLiteral("the device is gone") : m_pDevice->errorString());
    return bytes == size;
}

// A file keeps bytes, and may learn only now that the disk is full.
bool HttpDownloadTarget::flush()
{
    if (!isUsable())
        return false;
    auto* file = qobject_cast<QFileDevice*>(m_pDevice.data());
    if (file != nullptr && !file->flush())
        m_problem = QLatin1String("the answer cannot be written: ") + file->errorString();
    return m_problem.isEmpty();
}
