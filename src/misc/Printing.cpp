#include <KepNuvikaUtil/CreateDbId.h>
#include <KepNuvikaUtil/HMatrix2D.h>
#include <KepNuvikaUtil/NUVIKA_RECT.h>
#include <KepNuvikaUtil/NUVIKA_SIZE.h>

#include <QtCore/QDebug>

#include <initializer_list>

namespace
{
// Type(number, number), whatever the stream's settings are.
template <class Number>
QDebug print(QDebug& debug, const char* type, std::initializer_list<Number> numbers)
{
    const QDebugStateSaver saver(debug);
    debug.resetFormat().nospace() << type;
    const char* between = "(";
    for (const Number number : numbers) {
        debug << between << number;
        between = ", ";
    }
    debug << ')';
    return debug;
}
} // namespace

uint qHash(const CreateDbId& id, uint seed)
{
    return qHash(qMakePair(qMakePair(id.m_name, id.m_typeName), id.m_nId), seed);
}

QDebug operator<<(QDebug debug, const CreateDbId& id)
{
    const QDebugStateSaver saver(debug);
    debug.resetFormat().nospace().quote() << "CreateDbId(" << id.getDbId() << ')';
    return debug;
}

QDebug operator<<(QDebug debug, const HVector2D& v) { return print(debug, "HVector2D", {v.x(), v.y()}); }

QDebug operator<<(QDebug debug, const HMatrix2D& m)
{
    return print(debug, "HMatrix2D", {m.m11(), m.m12(), m.m21(), m.m22(), m.dx(), m.dy()});
}

QDebug operator<<(QDebug debug, const NUVIKA_RECT& rect)
{
    return print(debug, "NUVIKA_RECT", {rect.left, rect.top, rect.right, rect.bottom});
}

QDebug operator<<(QDebug debug, const NUVIKA_SIZE& size)
{
    return print(debug, "NUVIKA_SIZE", {size.cx, size.cy});
}

QDebug KepNuvikaUtil::operator<<(QDebug debug, const RECT& rect)
{
    return print(debug, "RECT", {rect.left, rect.top, rect.right, rect.bottom});
}

QDebug KepNuvikaUtil::operator<<(QDebug debug, const SIZE& size)
{
    return print(debug, "SIZE", {size.cx, size.cy});
}
