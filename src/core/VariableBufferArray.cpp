#include <KepNuvikaUtil/VariableBufferArray.h>

#include "core/OutOfMemory_p.h"

#include <algorithm>
#include <new>

VariableBufferArray::VariableBufferArray(int count)
    : m_maxBuffers(std::max(count, 0)),
      m_pBuffers(new (std::nothrow) VariableBuffer[static_cast<std::size_t>(m_maxBuffers)])
{
    if (!m_pBuffers)
        Nuvika::endWithoutMemory(
            "VariableBufferArray::VariableBufferArray", sizeof(VariableBuffer) * std::size_t(m_maxBuffers));
}

VariableBufferArray::~VariableBufferArray() = default;

int VariableBufferArray::addBuffer()
{
    if (m_usedBuffers >= m_maxBuffers)
        return -1;
    m_pBuffers[static_cast<std::size_t>(m_usedBuffers)].clear();
    return m_usedBuffers++;
}

int VariableBufferArray::addBufferData(const char* p, int n)
{
    const int index = addBuffer();
    if (index >= 0)
        m_pBuffers[static_cast<std::size_t>(index)].setData(p, n);
    return index;
}

VariableBuffer* VariableBufferArray::getBufferAt(int index)
{
    return index >= 0 && index < m_usedBuffers ? &m_pBuffers[static_cast<std::size_t>(index)] : nullptr;
}
