// A table as text: a line for each row, its fields parted by semicolons.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <vector>

inline QList<QList<QByteArray>> rowsOf(const QByteArray& table, char between = ';')
{
    QList<QList<QByteArray>> rows;
    for (const QByteArray& line : table.trimmed().split('\n')) {
        rows += QList<QByteArray>();
        for (const QByteArray& field : line.split(between))
            rows.last() += field.trimmed();
    }
    return rows;
}

inline std::vector<int> numbersOf(const QByteArray& text)
{
    std::vector<int> numbers;
    for (const QByteArray& each : text.split(' '))
        numbers.push_back(each.toInt());
    return numbers;
}
