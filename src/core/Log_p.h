// Private: the one way in which the library writes log records and checks its own assumptions.
//
// Records go through QMessageLogger with the source file's base name, the line and the full signature, in
// release builds too. Each room has a logging category, so that a host filters with Qt's own rules; a record
// of a disabled category costs one branch: its arguments are not evaluated.
#pragma once

#include <KepNuvikaUtil/Assertion.h>

#include <QtCore/QLoggingCategory>

namespace Nuvika
{
Q_DECLARE_LOGGING_CATEGORY(lcCore) // nuvika.core
Q_DECLARE_LOGGING_CATEGORY(lcNet) // nuvika.net
Q_DECLARE_LOGGING_CATEGORY(lcMedia) // nuvika.media
Q_DECLARE_LOGGING_CATEGORY(lcMsg) // nuvika.msg
Q_DECLARE_LOGGING_CATEGORY(lcHttp) // nuvika.http
Q_DECLARE_LOGGING_CATEGORY(lcRtsp) // nuvika.rtsp

constexpr const char* baseName(const char* path)
{
    const char* name = path;
    for (; *path != '\0'; ++path) {
        if (*path == '/')
            name = path + 1;
    }
    return name;
}
} // namespace Nuvika

#define NUVIKA_LOG_IF(enabled, method, category, ...)                                                        \
    do {                                                                                                     \
        const QLoggingCategory& logCategory = Nuvika::category();                                            \
        if (logCategory.enabled())                                                                           \
            QMessageLogger(Nuvika::baseName(__FILE__), __LINE__, Q_FUNC_INFO, logCategory.categoryName())    \
                .method(__VA_ARGS__);                                                                        \
    } while (false)

#define NUVIKA_DEBUG(category, ...) NUVIKA_LOG_IF(isDebugEnabled, debug, category, __VA_ARGS__)
#define NUVIKA_WARNING(category, ...) NUVIKA_LOG_IF(isWarningEnabled, warning, category, __VA_ARGS__)
#define NUVIKA_CRITICAL(category, ...) NUVIKA_LOG_IF(isCriticalEnabled, critical, category, __VA_ARGS__)

// The internal assertion: reports and carries on.
#define NUVIKA_ASSERT(condition)                                                                             \
    do {                                                                                                     \
        if (Q_UNLIKELY(!(condition)))                                                                        \
            nuvikaAssertPrint(#condition, Nuvika::baseName(__FILE__), __LINE__);                             \
    } while (false)
