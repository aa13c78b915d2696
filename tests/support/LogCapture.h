// The log records that were written while this object lives.
#pragma once

#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <vector>

class LogCapture
{
public:
    struct Record {
        QtMsgType type;
        QString text;
        QString file;
        QString function;
        QString category;
        int line;
    };

    LogCapture()
    {
        s_pCurrent = this;
        m_previous = qInstallMessageHandler(&LogCapture::handle);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(m_previous);
        s_pCurrent = nullptr;
    }

    std::vector<Record> records() const
    {
        QMutexLocker lock(&m_mutex);
        return m_records;
    }
    int count(const char* part, int type = -1) const
    {
        int n = 0;
        for (const Record& record : records())
            n += record.text.contains(QLatin1String(part)) && (type < 0 || record.type == type) ? 1 : 0;
        return n;
    }
    bool has(const char* part, int type = -1) const { return count(part, type) > 0; }

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        if (s_pCurrent == nullptr)
            return;
        QMutexLocker lock(&s_pCurrent->m_mutex);
        s_pCurrent->m_records.push_back({type, text, QString::fromUtf8(context.file),
            QString::fromUtf8(context.function), QString::fromUtf8(context.category), context.line});
    }

    static inline LogCapture* s_pCurrent = nullptr;
    mutable QMutex m_mutex;
    std::vector<Record> m_records;
    QtMessageHandler m_previous = nullptr;
};
