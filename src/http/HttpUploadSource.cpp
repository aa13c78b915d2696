#include "http/HttpUploadSource_p.h"

#include <QtCore/QFileDevice>

#include <algorithm>
#include <utility>

using namespace Nuvika;

HttpUploadSource::HttpUploadSource(QIODevice* device, QTimer& wakeUp)
    : m_pDevice(device), m_pWakeUp(&wakeUp), m_bSequential(device == nullptr || device->isSequential()),
      m_bBlocks(qobject_cast<QFileDevice*>(device) != nullptr)
{
    if (!isUsable())
        return;
    m_nStart = device->pos();
    const auto wake = [this] { changed(); };
    QObject::connect(device, &QIODevice::aboutToClose, &m_connections, [this] {
        m_bClosed = true;
        changed();
    });
    QObject::connect(device, &QObject::destroyed, &m_connections, wake);
    if (!m_bSequential)
        return;
    QObject::connect(device, &QIODevice::readyRead, &m_connections, wake);
    QObject::connect(device, &QIODevice::readChannelFinished, &m_connections, [this] {
        m_bFinished = true;
        changed();
    });
}

void HttpUploadSource::changed()
{
    if (!m_pWakeUp.isNull())
        m_pWakeUp->start(0);
}

bool HttpUploadSource::isUsable()
{
    if (m_pDevice.isNull())
        m_problem = QStringLiteral("the device to send from is gone");
    else if (m_bClosed || !m_pDevice->isReadable())
        m_problem = QStringLiteral("the device to send from is not open for reading");
    return m_problem.isEmpty();
}

qint64 HttpUploadSource::size() const
{
    return m_bSequential || !m_problem.isEmpty() ? -1 : std::max<qint64>(m_pDevice->size() - m_nStart, 0);
}

bool HttpUploadSource::begin()
{
    const bool bBegun = std::exchange(m_nRead, 0) > 0;
    if (!isUsable())
        return false;
    if (m_bSequential ? bBegun : !m_pDevice->seek(m_nStart))
        m_problem = QStringLiteral("the device to send from cannot go back to where it stood");
    return m_problem.isEmpty();
}

HttpUploadSource::Result HttpUploadSource::read(int most)
{
    if (!isUsable())
        return eFailed;
    m_piece.resize(most);
    m_bReading = true;
    const qint64 bytes = m_pDevice->read(m_piece.data(), most);
    m_bReading = false;
    if (bytes <= 0)
        return resultOf(bytes);
    m_piece.truncate(static_cast<int>(bytes));
    m_nRead += bytes;
    return eData;
}

// What a device means that gives no byte differs: of a random access device 0 is the end and -1 a failure, of
// a sequential one 0 means "not yet", and -1 that there is no more.
HttpUploadSource::Result HttpUploadSource::resultOf(qint64 bytes)
{
    if (bytes == 0)
        return m_bSequential && !m_bBlocks && !m_bFinished ? eNotYet : eEnd;
    if (m_bSequential && !m_bBlocks)
        return eEnd;
    m_problem = m_pDevice.isNull()
        ? QStringLiteral("the device to send from is gone")
        : QLatin1String("the device to send from cannot be read: ") + m_pDevice->errorString();
    return eFailed;
}
