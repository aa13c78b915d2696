#include <KepNuvikaUtil/HMatrix2D.h>

#include <cmath>

namespace
{
constexpr double kSingular = 1e-100;

HMatrix2D about(const HMatrix2D& transform, double x, double y)
{
    return HMatrix2D::fromTranslation(-x, -y) * transform * HMatrix2D::fromTranslation(x, y);
}
} // namespace

HMatrix2D::HMatrix2D(double angle)
    : m_11(std::cos(angle)), m_12(std::sin(angle)), m_21(-std::sin(angle)), m_22(std::cos(angle))
{
}

HMatrix2D::HMatrix2D(double sx, double sy, double dx, double dy) : m_11(sx), m_22(sy), m_dx(dx), m_dy(dy) { }

HMatrix2D HMatrix2D::fromScaleAndTranslation(double sx, double sy, double dx, double dy)
{
    return {sx, sy, dx, dy};
}

bool HMatrix2D::invert()
{
    const double det = determinant();
    if (std::fabs(det) < kSingular)
        return false;
    HMatrix2D inverse;
    inverse.m_11 = m_22 / det;
    inverse.m_12 = -m_12 / det;
    inverse.m_21 = -m_21 / det;
    inverse.m_22 = m_11 / det;
    inverse.m_dx = (m_dy * m_21 - m_dx * m_22) / det;
    inverse.m_dy = (m_dx * m_12 - m_dy * m_11) / det;
    *this = inverse;
    return true;
}

HMatrix2D HMatrix2D::operator*(const HMatrix2D& b) const
{
    HMatrix2D product;
    product.m_11 = m_11 * b.m_11 + m_12 * b.m_21;
    product.m_12 = m_11 * b.m_12 + m_12 * b.m_22;
    product.m_21 = m_21 * b.m_11 + m_22 * b.m_21;
    product.m_22 = m_21 * b.m_12 + m_22 * b.m_22;
    product.m_dx = m_dx * b.m_11 + m_dy * b.m_21 + b.m_dx;
    product.m_dy = m_dx * b.m_12 + m_dy * b.m_22 + b.m_dy;
    return product;
}

HMatrix2D& HMatrix2D::rotate(double angle) { return *this = *this * fromRotation(angle); }
HMatrix2D& HMatrix2D::scale(double sx, double sy) { return *this = *this * fromScale(sx, sy); }

HMatrix2D& HMatrix2D::translate(double tx, double ty)
{
    m_dx += tx;
    m_dy += ty;
    return *this;
}

HMatrix2D& HMatrix2D::rotatePrepend(double angle) { return *this = fromRotation(angle) * *this; }
HMatrix2D& HMatrix2D::scalePrepend(double sx, double sy) { return *this = fromScale(sx, sy) * *this; }
HMatrix2D& HMatrix2D::translatePrepend(double tx, double ty)
{
    return *this = fromTranslation(tx, ty) * *this;
}

HMatrix2D& HMatrix2D::rotateAt(double angle, double x, double y)
{
    return *this = *this * about(fromRotation(angle), x, y);
}

HMatrix2D& HMatrix2D::scaleAt(double sx, double sy, double x, double y)
{
    return *this = *this * about(fromScale(sx, sy), x, y);
}

HMatrix2D& HMatrix2D::rotateAtPrepend(double angle, double x, double y)
{
    return *this = about(fromRotation(angle), x, y) * *this;
}

HMatrix2D& HMatrix2D::scaleAtPrepend(double sx, double sy, double x, double y)
{
    return *this = about(fromScale(sx, sy), x, y) * *this;
}

HVector2D HMatrix2D::transform(const HVector2D& v) const
{
    return {m_11 * v.x() + m_21 * v.y() + m_dx, m_12 * v.x() + m_22 * v.y() + m_dy};
}

bool HMatrix2D::operator==(const HMatrix2D& b) const
{
    return m_11 == b.m_11 && m_12 == b.m_12 && m_21 == b.m_21 && m_22 == b.m_22 && m_dx == b.m_dx
        && m_dy == b.m_dy;
}

HVector2D HVector2D::operator*(const HMatrix2D& m) const { return m.transform(*this); }

void HVector2D::transformBy(const HMatrix2D& m) { *this = m.transform(*this); }
