// Private: what the body of an upload is read from: a device of the caller's, which may
// go, close or fail at any moment, and whose signals may call back into whoever reads it.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QIODevice>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

namespace Nuvika
{
class HttpUploadSource
{
public:
    // `wakeUp` is started when there may be more to read, and when the device has ended.
    HttpUploadSource(QIODevice* device, QTimer& wakeUp);

    // False, with a problem in words, when it cannot be read.
    bool isUsable();
    const QString& problem() const { return m_problem; }
    // From where it stands to its end; -1 when it does not know.
    qint64 size() const;
    bool canGoBack() const { return !m_bSequential; }
    // To where it stood when it was handed over; false, with a problem, when it cannot.
    bool begin();

    enum Result { eData, eNotYet, eEnd, eFailed };
    Result read(int most);
    const QByteArray& piece() const { return m_piece; } // of eData
    qint64 bytesRead() const { return m_nRead; }
    // read() is running, below an event loop of the device's.
    bool isReading() const { return m_bReading; }

private:
    void changed();
    Result resultOf(qint64 bytes);

    QPointer<QIODevice> m_pDevice;
    QPointer<QTimer> m_pWakeUp; // the engine may end below a read()
    bool m_bSequential;
    bool m_bBlocks; // a file: that nothing can be read now means that nothing will
    qint64 m_nStart = 0;
    qint64 m_nRead = 0;
    bool m_bClosed = false;
    bool m_bFinished = false;
    bool m_bReading = false;
    QByteArray m_piece;
    QString m_problem;
    QObject m_connections; // end with this object
};
} // namespace Nuvika
