// The access units of a stream, one behind the other in a file: each is there whole or not at all.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

class StreamFile
{
public:
    StreamFile() = default;
    ~StreamFile();
    StreamFile(const StreamFile&) = delete;
    StreamFile& operator=(const StreamFile&) = delete;

    // Empties the file. False: problem() tells why, as with the others.
    bool open(const QString& name);
    // What could be written of a unit that does not fit is taken away again; nothing is written from then on.
    bool write(const char* unit, qint64 size);
    // Waits for the disk.
    bool finish();

    bool isOpen() const { return m_nDescriptor >= 0; }
    const QString& name() const { return m_name; }
    const QString& problem() const { return m_problem; }
    quint64 units() const { return m_nUnits; }
    qint64 bytes() const { return m_nBytes; }

private:
    bool check(bool bDone);

    QString m_name;
    QString m_problem;
    int m_nDescriptor = -1;
    quint64 m_nUnits = 0;
    qint64 m_nBytes = 0;
};
