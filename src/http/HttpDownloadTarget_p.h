// Private: what the body of an answer is written to: a device of the caller's, which may go, close or fail at
// any moment.
#pragma once

#include <QtCore/QIODevice>
#include <QtCore/QPointer>

namespace Nuvika
{
class HttpDownloadTarget
{
public:
    explicit HttpDownloadTarget(QIODevice* device);

    // Why it cannot be written, in words; empty when it can.
    const QString& problem() const { return m_problem; }
    // A body that has begun can begin anew.
    bool canBeginAnew() const { return m_nWritten == 0 || !m_bSequential; }
    // The next three: false, with a problem, when the device does not do it. Its handlers may have done
    // anything.
    bool begin();
    bool write(const char* data, int size);
    bool flush();

    qint64 bytesWritten() const { return m_nWritten; }

private:
    bool isUsable();
    bool cutTail();

    QPointer<QIODevice> m_pDevice;
    bool m_bSequential;
    qint64 m_nStart = 0;
    qint64 m_nSizeBefore = 0;
    qint64 m_nWritten = 0;
    QString m_problem;
};
} // namespace Nuvika
