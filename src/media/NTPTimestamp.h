#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QDateTime>
#include <QtCore/QHashFunctions>
#include <QtCore/QMetaType>
#include <QtCore/QString>

class QDataStream;
class QDebug;

/// A point in time as RTCP carries it (RFC 3550, section 4): 64-bit fixed point, the upper 32 bits whole
/// seconds since 1900-01-01 00:00:00 UTC, the lower 32 bits a fraction in units of 2^-32 s. The default is 0,
/// the null timestamp.
///
/// Conversions in truncate, conversions out round to nearest: milliseconds survive the way in and back.
/// Arithmetic is that of the 64-bit value, modulo 2^64. Nothing is checked: dividing by zero is the caller's
/// fault, as with integers.
///
/// The seconds start again at 0 on 2036-02-07 06:28:16 UTC. Times behind that go in as they travel, and
/// differences across it come out right; but toUnixTime(), toDateTime() and toString() read every value as
/// one before it. toDateTime(near) reads it as the time of that value nearest to a known one, now for a live
/// stream.
///
/// Registered with Qt's meta-type system as "NTPTimestamp" when the library loads.
/// Threads: a plain value.
class KEPNUVIKAUTIL_EXPORT NTPTimestamp
{
public:
    NTPTimestamp() = default;

    static NTPTimestamp fromRawHostByteOrder(quint64 v) { return NTPTimestamp(v); }
    /// \a v as read from a packet without a change of byte order.
    static NTPTimestamp fromRawNetByteOrder(quint64 v);
    static NTPTimestamp fromMilliseconds(quint64 ms);
    static NTPTimestamp fromMicroseconds(quint64 us);
    /// numerator/denominator seconds; the remainder's low 32 bits make the fraction.
    static NTPTimestamp fromDivision(quint64 numerator, quint64 denominator);
    /// Seconds since 1970-01-01 UTC, rounded to microseconds. A value that no 64-bit count of microseconds
    /// holds gives a meaningless timestamp.
    static NTPTimestamp fromUnixTime(double seconds);
    /// A time before 1900 gives a meaningless timestamp.
    static NTPTimestamp fromDateTime(const QDateTime& dateTime);
    /// Reads exactly 16 characters, '0'..'9' and 'A'..'F', most significant first. Nothing is validated, and
    /// lower-case digits give wrong values.
    static NTPTimestamp fromHex(const unsigned char* text);

    quint64 toHostByteOrder() const { return m_value; }
    /// Ready to be stored into a packet as it is.
    quint64 toNetByteOrder() const;
    quint64 toMilliseconds() const { return MultiplyWith(1000); }
    quint64 toMicroSeconds() const { return MultiplyWith(1000000); }
    /// 0.0 for everything up to 1970.
    double toUnixTime() const;
    /// In UTC.
    QDateTime toDateTime() const;
    /// "yyyy-MM-ddThh:mm:ss.zzz", without a zone.
    QString toString(bool local) const;
    /// Writes exactly 16 characters, upper case, most significant first, and no terminator.
    void toHex(char* out) const;

    bool isNull() const { return m_value == 0; }

    NTPTimestamp operator+(const NTPTimestamp& other) const { return NTPTimestamp(m_value + other.m_value); }
    NTPTimestamp operator-(const NTPTimestamp& other) const { return NTPTimestamp(m_value - other.m_value); }
    NTPTimestamp& operator+=(const NTPTimestamp& other) { return *this = *this + other; }
    NTPTimestamp& operator-=(const NTPTimestamp& other) { return *this = *this - other; }
    NTPTimestamp operator*(quint64 factor) const { return NTPTimestamp(m_value * factor); }
    NTPTimestamp& operator*=(quint64 factor) { return *this = *this * factor; }
    NTPTimestamp operator/(quint64 divisor) const { return NTPTimestamp(m_value / divisor); }
    NTPTimestamp& operator/=(quint64 divisor) { return *this = *this / divisor; }

    bool operator==(const NTPTimestamp& other) const { return m_value == other.m_value; }
    bool operator!=(const NTPTimestamp& other) const { return m_value != other.m_value; }
    bool operator<(const NTPTimestamp& other) const { return m_value < other.m_value; }
    bool operator<=(const NTPTimestamp& other) const { return m_value <= other.m_value; }
    bool operator>(const NTPTimestamp& other) const { return m_value > other.m_value; }
    bool operator>=(const NTPTimestamp& other) const { return m_value >= other.m_value; }

    /// In UTC: of the times that this value stands for, 136 years apart, the one nearest to \a near.
    QDateTime toDateTime(const QDateTime& near) const;

private:
    friend class ClockToNtpMapper32;
    friend class ClockToNtpMapper64;

    explicit NTPTimestamp(quint64 value) : m_value(value) { }
    static NTPTimestamp fromUnits(quint64 units, quint64 unitsPerSecond);
    // The count of units of which m make one second, rounded to nearest.
    quint64 MultiplyWith(quint64 m) const;

    quint64 m_value = 0;
};

inline NTPTimestamp operator*(quint64 factor, const NTPTimestamp& timestamp) { return timestamp * factor; }

/// One quint64 in the stream's byte order.
KEPNUVIKAUTIL_EXPORT QDataStream& operator<<(QDataStream& stream, const NTPTimestamp& timestamp);
KEPNUVIKAUTIL_EXPORT QDataStream& operator>>(QDataStream& stream, NTPTimestamp& timestamp);

inline uint qHash(const NTPTimestamp& timestamp, uint seed = 0) noexcept
{
    return qHash(timestamp.toHostByteOrder(), seed);
}

/// For logs: the time in UTC as toString() has it, and the value.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const NTPTimestamp& timestamp);

Q_DECLARE_METATYPE(NTPTimestamp)
