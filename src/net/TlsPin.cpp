#include <KepNuvikaUtil/TlsPin.h>

namespace
{
constexpr int kSize = 32;
const QLatin1String kPublicKey("sha256//");

bool isHexDigit(QChar c)
{
    return (c >= QLatin1Char('0') && c <= QLatin1Char('9'))
        || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))
        || (c >= QLatin1Char('A') && c <= QLatin1Char('F'));
}

// The digits of a fingerprint; null where something else stands between them.
QByteArray digitsOf(const QString& fingerprint)
{
    QByteArray digits;
    for (const QChar c : fingerprint) {
        if (isHexDigit(c))
            digits += c.toLatin1();
        else if (c != QLatin1Char(':') && c != QLatin1Char(' '))
            return QByteArray();
    }
    return digits;
}

QByteArray publicKeyOf(const QString& text, QString* problem)
{
    const auto decoded = QByteArray::fromBase64Encoding(
        text.mid(kPublicKey.size()).toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (decoded && decoded.decoded.size() == kSize)
        return decoded.decoded;
    *problem = QStringLiteral("\"%1\" is no pin: 32 bytes in Base64 belong behind sha256//").arg(text);
    return QByteArray();
}

QByteArray certificateOf(const QString& text, QString* problem)
{
    const QByteArray digits = digitsOf(text.mid(text.indexOf(QLatin1Char('=')) + 1));
    if (digits.size() == 2 * kSize)
        return QByteArray::fromHex(digits);
    *problem = digits.isEmpty()
        ? QStringLiteral("\"%1\" is no pin: neither sha256//BASE64 nor a fingerprint").arg(text)
        : QStringLiteral("\"%1\" is no pin: it has %2 hexadecimal digits, a SHA-256 has 64%3")
              .arg(text)
              .arg(digits.size())
              .arg(digits.size() == 40 ? QStringLiteral(" (this may be a SHA-1)") : QString());
    return QByteArray();
}
} // namespace

TlsPin::TlsPin(Kind kind, const QByteArray& sha256)
{
    if (sha256.size() != kSize)
        return;
    m_kind = kind;
    m_sha256 = sha256;
}

TlsPin TlsPin::fromText(const QString& text, QString* problem)
{
    QString why;
    const QString wanted = text.trimmed();
    const bool bKey = wanted.startsWith(kPublicKey);
    TlsPin pin = bKey ? publicKey(publicKeyOf(wanted, &why)) : certificate(certificateOf(wanted, &why));
    if (problem != nullptr)
        *problem = why;
    return pin;
}

QString TlsPin::toText() const
{
    switch (m_kind) {
    case eCertificate:
        return QString::fromLatin1(m_sha256.toHex(':').toUpper());
    case ePublicKey:
        return kPublicKey + QString::fromLatin1(m_sha256.toBase64());
    default:
        return QString();
    }
}
