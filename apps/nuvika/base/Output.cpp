#include "Output.h"

#include "Exit.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace
{
int s_nError = 0; // of the first write that failed

bool s_bFailed = false;

bool noted(bool bWritten)
{
    if (!bWritten && !s_bFailed)
        s_nError = errno;
    s_bFailed = s_bFailed || !bWritten;
    return !s_bFailed;
}

bool isHarmful(QChar c)
{
    const ushort unit = c.unicode();
    return c.category() == QChar::Other_Control || (unit >= 0x2028 && unit <= 0x202E)
        || (unit >= 0x2066 && unit <= 0x2069);
}
} // namespace

bool Output::print(const char* format, ...)
{
    std::va_list values;
    va_start(values, format);
    const int written = std::vprintf(format, values);
    va_end(values);
    return noted(written >= 0);
}

bool Output::write(const QByteArray& bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    return noted(std::fwrite(bytes.constData(), 1, size, stdout) == size);
}

bool Output::flush() { return noted(std::fflush(stdout) == 0); }

int Output::finish(int code)
{
    flush();
    if (noted(std::fclose(stdout) == 0)) // some file systems tell only now
        return code;
    complain(QStringLiteral("cannot write standard output: %1").arg(qt_error_string(s_nError)));
    return code == Exit::kOk ? Exit::kWrite : code;
}

void Output::complain(const QString& sentence)
{
    std::fprintf(stderr, "nuvika: %s\n", shown(sentence).constData());
}

QByteArray Output::shown(const QString& text)
{
    QString out;
    for (const QChar c : text) {
        if (isHarmful(c))
            out += c.unicode() < 0x100 ? QString::asprintf("\\x%02x", c.unicode())
                                       : QString::asprintf("\\u%04x", c.unicode());
        else
            out += c;
    }
    return out.toUtf8();
}
