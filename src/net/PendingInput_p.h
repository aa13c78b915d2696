// Private: bytes, an end and a stall that wait while a handler runs.
//
// Whoever reads a connection and calls out in the middle of it takes its input through here. While a handler
// runs an event loop of its own, or the reader has said hold(), what arrives is kept and read later, in
// order; the connection's end stands behind the bytes before it. Above 1 MiB the source is stalled. A byte
// that waits is copied once, however often the reader stops.
#pragma once

#include <QtCore/QByteArray>

#include <optional>

namespace Nuvika
{
class InputReader
{
public:
    static constexpr int kOver = -1;

    // Reads the bytes (none, where they were received elsewhere), and calls out as it likes. Returns how many
    // were read: all of them, fewer only after hold(); or kOver when the reader is gone or reset() was called
    // meanwhile.
    virtual int readInput(const char* data, int size) = 0;
    // The connection's end, behind all bytes: a code as of error(int), 0 in good order. May destroy
    // everything.
    virtual void readEnd(int code) = 0;
    virtual void stallSource(bool bStall) = 0;

protected:
    ~InputReader() = default;
};

class PendingInput
{
public:
    static constexpr int kMaxWaiting = 1 << 20; // the source is stalled above it
    // Why the source is stalled: it is resumed when the last reason has gone.
    enum Stall : unsigned { eByOwner = 1, eByOutput = 2, eByBacklog = 4 };

    explicit PendingInput(InputReader& reader) : m_reader(reader) { }

    // Of the source. The reader may be gone when they return.
    void received(const char* data, int size);
    void ended(int code);

    // Nothing further is read, not even what is here, until release(). From outside of readInput() the latter
    // reads at once, so that the reader may be gone when it returns.
    void hold() { m_bHeld = true; }
    void release();

    void setStalled(Stall reason, bool bStalled);
    // Another session: forgets what waits, and every stall but the owner's.
    void reset();

    bool isReading() const { return m_bReading; }
    bool isEmpty() const { return waiting() == 0; }
    bool hasEnded() const { return m_end.has_value(); }
    // Bytes or the end came behind those that readInput() is reading.
    bool hasMore() const { return !m_arrived.isEmpty() || hasEnded(); }

private:
    int waiting() const { return m_front.size() - m_nRead + m_arrived.size(); }
    void read(const char* data, int size);
    bool readWaiting();
    void setStalls(unsigned stalls);
    void lookAtBacklog();

    InputReader& m_reader;
    QByteArray m_front; // is read first,
    int m_nRead = 0; // from here on
    QByteArray m_arrived; // and then this
    std::optional<int> m_end;
    unsigned m_stalls = 0;
    bool m_bReading = false;
    bool m_bHeld = false;
};
} // namespace Nuvika
