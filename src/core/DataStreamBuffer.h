#pragma once

#include <KepNuvikaUtil/VariableBuffer.h>

#include <QtCore/QIODevice>

/// A QIODevice over bytes in memory, so that a QDataStream writes into a VariableBuffer or reads a block.
/// The device is open from construction, unbuffered: write-only over a buffer, read-only over a block.
///
/// Threads: one at a time.
/// Lifetime: the buffer that was given for writing, and a block that is read without a copy, stay the
/// caller's and must outlive the device.
class KEPNUVIKAUTIL_EXPORT DataStreamBuffer : public QIODevice
{
    Q_OBJECT
public:
    /// Writes into a buffer of its own.
    DataStreamBuffer();
    /// Writes into \a buffer, which is emptied at once.
    explicit DataStreamBuffer(VariableBuffer* buffer);
    /// Reads \a size bytes at \a data, or a private copy of them.
    DataStreamBuffer(const char* data, int size, bool copy);
    ~DataStreamBuffer() override;

    /// The bytes read from or written so far; null when there are none.
    const char* getBuffer() const;

    bool isSequential() const override { return false; }
    /// Opens as constructed; the argument is ignored.
    bool open(OpenMode mode) override;
    qint64 size() const override;
    /// Moves the position. A writing device cuts its buffer to \a pos; positions beyond the end fail.
    bool seek(qint64 pos) override;
    /// Back to position 0; a writing device also shrinks its buffer to \a capacity bytes.
    void resetAndSqueeze(int capacity);

protected:
    qint64 readData(char* dst, qint64 max) override;
    qint64 writeData(const char* src, qint64 len) override;

private:
    bool isWriting() const { return m_mode == 0; }
    void openAsConstructed();

    qint32 m_mode;
    VariableBuffer m_ownBuffer;
    VariableBuffer* m_pTarget = nullptr;
    qint64 m_pos = 0;
    const char* m_pRaw = nullptr;
    qint32 m_rawSize = 0;
    bool m_bOwnsRaw = false;
};
