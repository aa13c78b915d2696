#include <KepNuvikaUtil/NUVIKA_RECT.h>
#include <KepNuvikaUtil/NUVIKA_SIZE.h>

namespace
{
// 32-bit arithmetic that wraps.
qint32 sum(qint32 a, qint32 b)
{
    return static_cast<qint32>(static_cast<quint32>(a) + static_cast<quint32>(b));
}

qint32 difference(qint32 a, qint32 b)
{
    return static_cast<qint32>(static_cast<quint32>(a) - static_cast<quint32>(b));
}
} // namespace

int NUVIKA_RECT::width() const { return difference(right, left); }
int NUVIKA_RECT::height() const { return difference(bottom, top); }

void NUVIKA_RECT::moveBy(int dx, int dy)
{
    left = sum(left, dx);
    top = sum(top, dy);
    right = sum(right, dx);
    bottom = sum(bottom, dy);
}

void NUVIKA_RECT::moveTopLeftTo(int x, int y) { moveBy(difference(x, left), difference(y, top)); }

bool NUVIKA_RECT::operator==(const NUVIKA_RECT& other) const
{
    return left == other.left && top == other.top && right == other.right && bottom == other.bottom;
}

NUVIKA_RECT NUVIKA_RECT::fromQRect(const QRect& rect)
{
    return {rect.left(), rect.top(), sum(rect.right(), 1), sum(rect.bottom(), 1)};
}

QRect NUVIKA_RECT::toQRect() const
{
    return QRect(QPoint(left, top), QPoint(difference(right, 1), difference(bottom, 1)));
}

NUVIKA_RECT NUVIKA_RECT::fromWinRect(const KepNuvikaUtil::RECT& rect)
{
    return {rect.left, rect.top, rect.right, rect.bottom};
}

KepNuvikaUtil::RECT NUVIKA_RECT::toWinRect() const { return {left, top, right, bottom}; }

NUVIKA_SIZE NUVIKA_SIZE::fromQRect(const QRect& rect) { return fromRect(NUVIKA_RECT::fromQRect(rect)); }

NUVIKA_SIZE NUVIKA_SIZE::fromRect(const NUVIKA_RECT& rect) { return {rect.width(), rect.height()}; }

NUVIKA_SIZE NUVIKA_SIZE::fromWinRect(const KepNuvikaUtil::RECT& rect)
{
    return fromRect(NUVIKA_RECT::fromWinRect(rect));
}
