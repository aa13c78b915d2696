// Private: SHA-1 and SHA-256 over whole buffers.
#pragma once

#include <QtCore/QByteArray>

class VariableBuffer;

namespace CryptoUtil
{
// 20 and 32 bytes; nothing, with a critical record, on failure.
QByteArray sha1(const QByteArray& in);
QByteArray sha256(const QByteArray& in);
// \a out is cleared first.
bool sha1(const VariableBuffer& in, VariableBuffer* out);
bool sha256(const VariableBuffer& in, VariableBuffer* out);
} // namespace CryptoUtil
