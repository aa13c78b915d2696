// The log records that were written while this object lives.
#pragma once

#include <QtCore/QString>

#include <mutex>
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
        const std::lock_guard<std::mutex> lock(s_mutex);
        s_pCurrent = this;
        m_previous = qInstallMessageHandler(&LogCapture::handle);
    }
    ~LogCapture()
    {
        const std::lock_guard<std::mutex> lock(s_mutex); // a worker may be about to log
        qInstallMessageHandler(m_previous);
        s_pCurrent = nullptr;
    }

    std::vector<Record> records() const
    {
        const std::lock_guard<std::mutex> lock(s_mutex);
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
        const std::lock_guard<std::mutex> lock(s_mutex);
        if (s_pCurrent == nullptr)
            return;
        s_pCurrent->m_records.push_back({type, text, QString::fromUtf8(context.file),
            QString::fromUtf8(context.function), QString::fromUtf8(context.category), context.line});
    }

    static inline std::mutex s_mutex;
    static inline LogCapture* s_pCurrent = nullptr;
    std::vector<Record> m_records;
    QtMessageHandler m_previous = nullptr;
};
