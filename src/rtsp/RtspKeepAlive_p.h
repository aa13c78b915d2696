// Private: with which method a session is kept, and how often.
#pragma once

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <algorithm>

namespace Nuvika
{
class RtspKeepAlive
{
public:
    static constexpr int kMostMs = 30000; // address translation forgets sooner than many servers

    // Of those that the server named GET_PARAMETER, SET_PARAMETER, OPTIONS, in this order.
    void setMethods(const QStringList& methods)
    {
        m_methods.clear();
        for (const QString& each : {QStringLiteral("GET_PARAMETER"), QStringLiteral("SET_PARAMETER")}) {
            if (methods.contains(each))
                m_methods.append(each);
        }
        m_methods.append(QStringLiteral("OPTIONS"));
    }
    QString method() const { return m_methods.isEmpty() ? QStringLiteral("OPTIONS") : m_methods.first(); }
    // The server refused it: the next one, and the last for good.
    void refused()
    {
        if (m_methods.size() > 1)
            m_methods.removeFirst();
    }
    static int intervalMs(int timeoutSeconds) { return std::clamp(timeoutSeconds * 500, 500, kMostMs); }

private:
    QStringList m_methods;
};
} // namespace Nuvika
