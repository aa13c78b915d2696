#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QHash>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

class QDebug;

/// A session description (RFC 4566, now RFC 8866): its lines as (type, value) pairs in three lists, for
/// reading, editing and writing back.
///
/// Parsing sorts the lines of each section (the session, and each media section) into the order v o s i u e p
/// c b z k a t r, then drops without a message every line that breaks the order rules. So a session section
/// with a z, k or a line loses its t and r lines.
///
/// A finished parse is kept in a process-wide cache under its exact text. Beyond 10,000 of them, those that
/// were not asked for in 20 seconds are forgotten; beyond 64 MiB the longest unused ones at once, and what is
/// larger than that is not kept at all.
///
/// A line holds no CR, LF or NUL: what has one is refused by everything that changes lines, with a warning.
///
/// Indexes count from 0. Getters give an empty list or string for an index out of range; what cannot be
/// changed or removed returns false, most with a warning.
/// Threads: fromSDPString() from any thread; one object by one thread at a time.
class KEPNUVIKAUTIL_EXPORT SDP
{
public:
    SDP() = default;
    SDP(const SDP& other) = default;
    SDP& operator=(const SDP& other) = default;
    ~SDP() = default;

    static SDP fromSDPString(const QString& text);
    /// The lines in the order v o s i u e c p b, (t r)*, z k a, (m i c b k a)*, each ended by CR LF.
    QString toString();

    /// Compares the lines in order and whether both were parsed; not when they were last used.
    bool operator==(const SDP& other) const;
    bool operator!=(const SDP& other) const { return !(*this == other); }
    /// Marks as used now.
    void reuse();

    int getNumTimeDesc() const { return m_timeDescs.size(); }
    int getNumMediaDesc() const { return m_mediaDescs.size(); }

    /// One type for each line, duplicates kept.
    QStringList getSessionParamNames() const;
    QStringList getSessionParamValues(const QString& name) const;
    /// An attribute is an "a" line "name:value" or "name".
    QStringList getSessionAttributeNames() const;
    /// Of the first attribute of that name; empty when it has no value or there is none.
    QString getSessionAttributeValue(const QString& name) const;
    QStringList getTimeParamValues(int idx, const QString& name) const;
    QStringList getMediaParamNames(int idx) const;
    QStringList getMediaParamValues(int idx, const QString& name) const;
    QStringList getMediaAttributeNames(int idx) const;
    QString getMediaAttributeValue(int idx, const QString& name) const;

    /// Changes the first line equal to (name, oldValue); an empty \a oldValue appends a line instead.
    bool setSessionParam(const QString& name, const QString& oldValue, const QString& newValue);
    bool setTimeParam(int idx, const QString& name, const QString& oldValue, const QString& newValue);
    bool setMediaParam(int idx, const QString& name, const QString& oldValue, const QString& newValue);
    /// Removes the first line equal to (name, value).
    bool removeSessionParam(const QString& name, const QString& value);
    bool removeTimeParam(int idx, const QString& name, const QString& value);
    bool removeMediaParam(int idx, const QString& name, const QString& value);
    /// Removes a whole description.
    bool removeTimeDesc(int idx);
    bool removeMediaDesc(int idx);
    /// Changes the attribute, or adds it.
    bool setMediaAttribute(int idx, const QString& name, const QString& value);
    /// Changes the attribute; false when there is none.
    bool replaceMediaAttribute(int idx, const QString& name, const QString& value);

    /// Moving leaves no lines behind.
    SDP(SDP&& other) noexcept = default;
    SDP& operator=(SDP&& other) noexcept = default;

private:
    using Param = QPair<QString, QString>;
    using ParamList = QVector<Param>;

    class Parser;
    struct CacheOwner;
    struct CacheEntry;

    void addToSdp(QString& out, const QString& type) const;
    void addTimeToSdp(QString& out, const QString& type, int idx) const;
    void addMediaToSdp(QString& out, const QString& type, int idx) const;
    void appendSessionParam(Param&& param);
    void appendMediaParam(Param&& param);
    qint64 bytes() const;
    static void keep(const QString& text, const SDP& sdp);
    static void forgetIdle();
    static void forgetOldest();

    QVector<ParamList> m_timeDescs;
    QVector<ParamList> m_mediaDescs;
    ParamList m_sessionParams;
    bool m_bValid = false;
    quint64 m_nLastUsed = 0; // milliseconds since 1970

    static QHash<QString, SDP*> s_sdpCache; // owns
    static QMutex s_mutexCache;
    static quint64 s_lastCacheCheck; // milliseconds since 1970
};

/// Names of the system's own attributes, each with its colon.
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaIdAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaNameAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaFunctionAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaMergeAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaPrivacyAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaStrongprivacyAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaAssociationsAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaDecoderconfigAttribute;
KEPNUVIKAUTIL_EXPORT extern const QString nuvikaVirtualptzAttribute;

/// For logs: its lines, without keys and passwords (k, a=crypto, a=key-mgmt; URLs).
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const SDP& sdp);
