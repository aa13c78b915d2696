// Private: the tokens of password strings.
#pragma once

#include "msg/AesToken_p.h"

class PwdEncrypter
{
public:
    PwdEncrypter();
    // The token; empty on failure.
    QByteArray encrypt(const QByteArray& text) { return m_writer.encrypt(text.constData(), text.size()); }

private:
    Nuvika::AesTokenWriter m_writer;
};

class PwdDecrypter
{
public:
    PwdDecrypter();
    // The plain bytes; empty on failure.
    QByteArray decrypt(const QByteArray& token)
    {
        QByteArray plain;
        m_reader.decrypt(token.constData(), token.size(), &plain);
        return plain;
    }
    // The same, where an empty text is no failure.
    bool canDecrypt(const QByteArray& token)
    {
        QByteArray plain;
        return m_reader.decrypt(token.constData(), token.size(), &plain);
    }

private:
    Nuvika::AesTokenReader m_reader;
};
