#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QHashFunctions>
#include <QtCore/QPair>

class QDebug;
class HMatrix2D;

/// A point or vector of the plane. Comparisons are exact; dividing by zero gives what doubles give.
class KEPNUVIKAUTIL_EXPORT HVector2D
{
public:
    HVector2D() = default;
    HVector2D(double x, double y) : m_x(x), m_y(y) { }

    double x() const { return m_x; }
    double y() const { return m_y; }

    HVector2D operator+(const HVector2D& v) const { return {m_x + v.m_x, m_y + v.m_y}; }
    HVector2D operator-(const HVector2D& v) const { return {m_x - v.m_x, m_y - v.m_y}; }
    HVector2D& operator+=(const HVector2D& v) { return *this = *this + v; }
    HVector2D& operator-=(const HVector2D& v) { return *this = *this - v; }
    HVector2D operator*(double factor) const { return {m_x * factor, m_y * factor}; }
    HVector2D operator/(double divisor) const { return {m_x / divisor, m_y / divisor}; }
    /// The point mapped by the transform.
    HVector2D operator*(const HMatrix2D& m) const;
    void transformBy(const HMatrix2D& m);

    bool operator==(const HVector2D& v) const { return m_x == v.m_x && m_y == v.m_y; }
    bool operator!=(const HVector2D& v) const { return !(*this == v); }

private:
    double m_x = 0;
    double m_y = 0;
};

inline uint qHash(const HVector2D& v, uint seed = 0) { return qHash(qMakePair(v.x(), v.y()), seed); }

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const HVector2D& v);
