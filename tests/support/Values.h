// What public values share: how they print, and that moving them costs and throws nothing.
#pragma once

#include <QtCore/QDebug>

#include <string>
#include <type_traits>

template <class Value>
std::string shown(const Value& value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text.toStdString();
}

template <class... Values>
constexpr bool moveFreely()
{
    return (std::is_nothrow_move_constructible_v<Values> && ...)
        && (std::is_nothrow_move_assignable_v<Values> && ...);
}
