#pragma once

#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HVector2D.h>

/// An affine transform of the plane. Points are row vectors: (x, y) maps to
/// (m11 x + m21 y + dx, m12 x + m22 y + dy). Angles are radians.
///
/// rotate(), scale() and translate() happen after what the transform does already, their Prepend forms
/// before it. Comparisons are exact.
class KEPNUVIKAUTIL_EXPORT HMatrix2D
{
public:
    /// The identity.
    HMatrix2D() = default;
    explicit HMatrix2D(double angle);
    HMatrix2D(double sx, double sy, double dx, double dy);

    static HMatrix2D identity() { return {}; }
    static HMatrix2D fromRotation(double angle) { return HMatrix2D(angle); }
    static HMatrix2D fromScaleAndTranslation(double sx, double sy, double dx, double dy);
    static HMatrix2D fromScale(double sx, double sy) { return {sx, sy, 0, 0}; }
    static HMatrix2D fromTranslation(double dx, double dy) { return {1, 1, dx, dy}; }

    double m11() const { return m_11; }
    double m12() const { return m_12; }
    double m21() const { return m_21; }
    double m22() const { return m_22; }
    double dx() const { return m_dx; }
    double dy() const { return m_dy; }

    double determinant() const { return m_11 * m_22 - m_21 * m_12; }
    /// False, and nothing changed, for a determinant below 1e-100.
    bool invert();

    /// This transform followed by \a b.
    HMatrix2D operator*(const HMatrix2D& b) const;
    void append(const HMatrix2D& b) { *this = *this * b; }
    void prepend(const HMatrix2D& b) { *this = b * *this; }

    HMatrix2D& rotate(double angle);
    HMatrix2D& scale(double sx, double sy);
    HMatrix2D& translate(double tx, double ty);
    HMatrix2D& rotatePrepend(double angle);
    HMatrix2D& scalePrepend(double sx, double sy);
    HMatrix2D& translatePrepend(double tx, double ty);
    /// About the point (x, y).
    HMatrix2D& rotateAt(double angle, double x, double y);
    HMatrix2D& scaleAt(double sx, double sy, double x, double y);
    HMatrix2D& rotateAtPrepend(double angle, double x, double y);
    HMatrix2D& scaleAtPrepend(double sx, double sy, double x, double y);

    HVector2D transform(const HVector2D& v) const;

    bool operator==(const HMatrix2D& b) const;
    bool operator!=(const HMatrix2D& b) const { return !(*this == b); }

private:
    double m_11 = 1;
    double m_12 = 0;
    double m_21 = 0;
    double m_22 = 1;
    double m_dx = 0;
    double m_dy = 0;
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const HMatrix2D& matrix);
