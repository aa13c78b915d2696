// Private: the tokens of encrypted frames.
#pragma once

#include "msg/AesToken_p.h"

class BufferSocketEncrypter : public Nuvika::AesTokenWriter
{
public:
    BufferSocketEncrypter();
};

class BufferSocketDecrypter : public Nuvika::AesTokenReader
{
public:
    BufferSocketDecrypter();
};
