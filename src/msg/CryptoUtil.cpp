#include "msg/CryptoUtil_p.h"

#include <KepNuvikaUtil/VariableBuffer.h>

#include "msg/Crypto_p.h"

using namespace Nuvika;

namespace
{
// The place for the function's name has always stood in these texts as it is.
constexpr DigestTexts kTexts{"CryptoUtil::%1: EVP_DigestInit_ex failed",
    "CryptoUtil::%1: EVP_DigestUpdate failed", "CryptoUtil::%1: EVP_DigestFinal_ex failed"};

bool digestInto(const EVP_MD* algorithm, const VariableBuffer& in, VariableBuffer* out)
{
    const QByteArray result = digest(algorithm, in.constData(), in.getSize(), kTexts);
    out->clear();
    out->setData(result.constData(), result.size());
    return !result.isEmpty();
}
} // namespace

QByteArray CryptoUtil::sha1(const QByteArray& in)
{
    return digest(sha1Digest(), in.constData(), static_cast<std::size_t>(in.size()), kTexts);
}

QByteArray CryptoUtil::sha256(const QByteArray& in)
{
    return digest(sha256Digest(), in.constData(), static_cast<std::size_t>(in.size()), kTexts);
}

bool CryptoUtil::sha1(const VariableBuffer& in, VariableBuffer* out)
{
    return digestInto(sha1Digest(), in, out);
}

bool CryptoUtil::sha256(const VariableBuffer& in, VariableBuffer* out)
{
    return digestInto(sha256Digest(), in, out);
}
