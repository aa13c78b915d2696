#include <KepNuvikaUtil/NTPTimestamp.h>

#include <KepNuvikaUtil/DateTimeExt.h>

#include <QtCore/QDataStream>
#include <QtCore/QtEndian>

#include <limits>

namespace
{
constexpr quint64 kNtpToUnixUs = 2208988800000000U; // from 1900 to 1970
constexpr int kHexDigits = 16;

__extension__ typedef unsigned __int128 Wide;

const QDateTime& epoch()
{
    static const QDateTime instant(QDate(1900, 1, 1), QTime(0, 0, 0, 0), Qt::UTC);
    return instant;
}

[[maybe_unused]] const int kMetaTypeId = qRegisterMetaType<NTPTimestamp>("NTPTimestamp");
} // namespace

NTPTimestamp NTPTimestamp::fromRawNetByteOrder(quint64 v) { return NTPTimestamp(qFromBigEndian(v)); }

NTPTimestamp NTPTimestamp::fromUnits(quint64 units, quint64 unitsPerSecond)
{
    const quint64 fraction = ((units % unitsPerSecond) << 32) / unitsPerSecond;
    return NTPTimestamp(((units / unitsPerSecond) << 32) + fraction);
}

NTPTimestamp NTPTimestamp::fromMilliseconds(quint64 ms) { return fromUnits(ms, 1000); }

NTPTimestamp NTPTimestamp::fromMicroseconds(quint64 us) { return fromUnits(us, 1000000); }

NTPTimestamp NTPTimestamp::fromDivision(quint64 numerator, quint64 denominator)
{
    const quint64 remainder = numerator % denominator;
    const auto fraction = static_cast<quint32>((remainder << 32) / denominator);
    return NTPTimestamp(((numerator / denominator) << 32) | fraction);
}

NTPTimestamp NTPTimestamp::fromUnixTime(double seconds)
{
    const double us = seconds * 1000000.0;
    const double rounded = us >= 0 ? us + 0.5 : us - 0.5;
    constexpr double kLimit = 9223372036854775808.0; // 2^63
    const qint64 whole = rounded >= -kLimit && rounded < kLimit ? static_cast<qint64>(rounded)
                                                                : std::numeric_limits<qint64>::min();
    return fromMicroseconds(static_cast<quint64>(whole) + kNtpToUnixUs);
}

NTPTimestamp NTPTimestamp::fromDateTime(const QDateTime& dateTime)
{
    return fromMilliseconds(static_cast<quint64>(DateTimeExt::DiffMSecs(epoch(), dateTime.toUTC())));
}

NTPTimestamp NTPTimestamp::fromHex(const unsigned char* text)
{
    quint64 value = 0;
    for (int i = 0; i < kHexDigits; ++i) {
        const int nibble = text[i] >= '0' && text[i] <= '9' ? text[i] - 48 : text[i] - 55;
        value = value * 16 + static_cast<quint64>(nibble);
    }
    return NTPTimestamp(value);
}

quint64 NTPTimestamp::toNetByteOrder() const { return qToBigEndian(m_value); }

double NTPTimestamp::toUnixTime() const
{
    const quint64 us = toMicroSeconds();
    return us <= kNtpToUnixUs ? 0.0 : static_cast<double>(us - kNtpToUnixUs) / 1000000.0;
}

QDateTime NTPTimestamp::toDateTime() const { return epoch().addMSecs(static_cast<qint64>(toMilliseconds())); }

QDateTime NTPTimestamp::toDateTime(const QDateTime& near) const
{
    constexpr qint64 kEraMs = qint64(1000) << 32;
    const auto inFirstEra = static_cast<qint64>(toMilliseconds());
    const qint64 ahead = DateTimeExt::DiffMSecs(epoch(), near.toUTC()) - inFirstEra + kEraMs / 2;
    const qint64 eras = ahead >= 0 ? ahead / kEraMs : -((kEraMs - 1 - ahead) / kEraMs);
    return epoch().addMSecs(inFirstEra + eras * kEraMs);
}

QString NTPTimestamp::toString(bool local) const
{
    const QDateTime utc = toDateTime();
    return (local ? utc.toLocalTime() : utc).toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz"));
}

void NTPTimestamp::toHex(char* out) const
{
    for (int i = 0; i < kHexDigits; ++i)
        out[i] = "0123456789ABCDEF"[(m_value >> (60 - 4 * i)) & 15];
}

quint64 NTPTimestamp::MultiplyWith(quint64 m) const
{
    const quint64 seconds = m_value >> 32;
    const quint64 fraction = m_value & 0xFFFFFFFFU;
    constexpr Wide kHalf = Wide(1) << 31;
    return seconds * m + static_cast<quint64>((Wide(fraction) * m + kHalf) >> 32);
}

QDataStream& operator<<(QDataStream& stream, const NTPTimestamp& timestamp)
{
    return stream << timestamp.toHostByteOrder();
}

QDataStream& operator>>(QDataStream& stream, NTPTimestamp& timestamp)
{
    quint64 value = 0;
    stream >> value;
    timestamp = NTPTimestamp::fromRawHostByteOrder(value);
    return stream;
}
