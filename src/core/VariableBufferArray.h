#pragma once

#include <KepNuvikaUtil/VariableBuffer.h>

#include <memory>

/// A fixed number of buffers, handed out in order; a user makes a fresh array for each batch.
/// Threads: one at a time.
class KEPNUVIKAUTIL_EXPORT VariableBufferArray
{
public:
    /// \a count empty buffers of alignment 16, none in use.
    explicit VariableBufferArray(int count);
    ~VariableBufferArray();
    VariableBufferArray(const VariableBufferArray&) = delete;
    VariableBufferArray& operator=(const VariableBufferArray&) = delete;

    /// Takes the next buffer, emptied, and returns its index; -1 when all are in use.
    int addBuffer();
    /// The same, filled with \a n bytes.
    int addBufferData(const char* p, int n);
    /// The buffer at \a index, or null when that is not in use. The array keeps it.
    VariableBuffer* getBufferAt(int index);
    /// Buffers in use.
    int size() const { return m_usedBuffers; }

private:
    int m_maxBuffers;
    int m_usedBuffers = 0;
    std::unique_ptr<VariableBuffer[]> m_pBuffers;
};
