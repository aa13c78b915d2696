#include <KepNuvikaUtil/SDP.h>

#include "core/Log_p.h"

#include <algorithm>
#include <utility>

const QString nuvikaIdAttribute = QStringLiteral("nuvika-id:");
const QString nuvikaNameAttribute = QStringLiteral("nuvika-name:");
const QString nuvikaFunctionAttribute = QStringLiteral("nuvika-function:");
const QString nuvikaMergeAttribute = QStringLiteral("nuvika-merge:");
const QString nuvikaPrivacyAttribute = QStringLiteral("nuvika-privacy:");
const QString nuvikaStrongprivacyAttribute = QStringLiteral("nuvika-strongprivacy:");
const QString nuvikaAssociationsAttribute = QStringLiteral("nuvika-associations:");
const QString nuvikaDecoderconfigAttribute = QStringLiteral("nuvika-decoderconfig:");
const QString nuvikaVirtualptzAttribute = QStringLiteral("nuvika-virtualptz:");

namespace
{
template <class List>
bool isIndex(const List& list, int idx)
{
    return idx >= 0 && idx < list.size();
}

template <class Params>
QStringList namesOf(const Params& params)
{
    QStringList names;
    for (const auto& param : params)
        names.append(param.first);
    return names;
}

template <class Params>
QStringList valuesOf(const Params& params, const QString& name)
{
    QStringList values;
    for (const auto& param : params) {
        if (param.first == name)
            values.append(param.second);
    }
    return values;
}

QStringRef attributeName(const QString& value)
{
    const int colon = value.indexOf(QLatin1Char(':'));
    return QStringRef(&value, 0, colon < 0 ? value.size() : colon);
}

template <class Params>
QStringList attributeNamesOf(const Params& params)
{
    QStringList names;
    for (const auto& param : params) {
        if (param.first == QLatin1String("a"))
            names.append(attributeName(param.second).toString());
    }
    return names;
}

// The first attribute of that name, or the end.
template <class Params>
auto findAttribute(Params& params, const QString& name)
{
    return std::find_if(params.begin(), params.end(), [&name](const auto& param) {
        return param.first == QLatin1String("a") && attributeName(param.second) == name;
    });
}

template <class Params>
QString attributeValueOf(const Params& params, const QString& name)
{
    const auto found = findAttribute(params, name);
    return found == params.end() ? QString() : found->second.mid(attributeName(found->second).size() + 1);
}

// What would end a line, and begin others, stands in none.
bool isLine(const char* function, const QString& name, const QString& value)
{
    const QString line = name + value;
    const bool bEnds
        = line.contains(QLatin1Char('\r')) || line.contains(QLatin1Char('\n')) || line.contains(QChar(0));
    if (bEnds)
        NUVIKA_WARNING(
            lcMedia, "SDP::%s() : Param could not be changed because it holds a CR, LF or NUL", function);
    return !bEnds;
}

template <class Params>
bool setParam(Params& params, const QString& name, const QString& oldValue, const QString& newValue)
{
    if (oldValue.isEmpty()) {
        params.append({name, newValue});
        return true;
    }
    const auto found = std::find(params.begin(), params.end(), qMakePair(name, oldValue));
    if (found == params.end())
        return false;
    found->second = newValue;
    return true;
}

template <class Params>
void addTo(QString& out, const Params& params, const QString& type)
{
    for (const auto& param : params) {
        if (param.first == type)
            out += type + QLatin1Char('=') + param.second + QLatin1String("\r\n");
    }
}

template <class Write>
void forEachType(const char* types, Write write)
{
    for (; *types != '\0'; ++types)
        write(QString(QLatin1Char(*types)));
}
} // namespace

void SDP::appendSessionParam(Param&& param) { m_sessionParams.append(std::move(param)); }

void SDP::appendMediaParam(Param&& param) { m_mediaDescs.last().append(std::move(param)); }

bool SDP::operator==(const SDP& other) const
{
    return m_bValid == other.m_bValid && m_sessionParams == other.m_sessionParams
        && m_timeDescs == other.m_timeDescs && m_mediaDescs == other.m_mediaDescs;
}

// --- writing -------------------------------------------------------------------------------------------

QString SDP::toString()
{
    QString out;
    forEachType("vosiuecpb", [&](const QString& type) { addToSdp(out, type); });
    for (int i = 0; i < m_timeDescs.size(); ++i)
        forEachType("tr", [&](const QString& type) { addTimeToSdp(out, type, i); });
    forEachType("zka", [&](const QString& type) { addToSdp(out, type); });
    for (int i = 0; i < m_mediaDescs.size(); ++i)
        forEachType("micbka", [&](const QString& type) { addMediaToSdp(out, type, i); });
    return out;
}

void SDP::addToSdp(QString& out, const QString& type) const { addTo(out, m_sessionParams, type); }

void SDP::addTimeToSdp(QString& out, const QString& type, int idx) const
{
    addTo(out, m_timeDescs.at(idx), type);
}

void SDP::addMediaToSdp(QString& out, const QString& type, int idx) const
{
    addTo(out, m_mediaDescs.at(idx), type);
}

// --- reading -------------------------------------------------------------------------------------------

QStringList SDP::getSessionParamNames() const { return namesOf(m_sessionParams); }

QStringList SDP::getSessionParamValues(const QString& name) const { return valuesOf(m_sessionParams, name); }

QStringList SDP::getSessionAttributeNames() const { return attributeNamesOf(m_sessionParams); }

QString SDP::getSessionAttributeValue(const QString& name) const
{
    return attributeValueOf(m_sessionParams, name);
}

QStringList SDP::getTimeParamValues(int idx, const QString& name) const
{
    return valuesOf(m_timeDescs.value(idx), name);
}

QStringList SDP::getMediaParamNames(int idx) const { return namesOf(m_mediaDescs.value(idx)); }

QStringList SDP::getMediaParamValues(int idx, const QString& name) const
{
    return valuesOf(m_mediaDescs.value(idx), name);
}

QStringList SDP::getMediaAttributeNames(int idx) const { return attributeNamesOf(m_mediaDescs.value(idx)); }

QString SDP::getMediaAttributeValue(int idx, const QString& name) const
{
    return attributeValueOf(m_mediaDescs.value(idx), name);
}

// --- changing ------------------------------------------------------------------------------------------

bool SDP::setSessionParam(const QString& name, const QString& oldValue, const QString& newValue)
{
    if (!isLine("setSessionParam", name, newValue))
        return false;
    if (setParam(m_sessionParams, name, oldValue, newValue))
        return true;
    NUVIKA_WARNING(lcMedia,
        "SDP::changeSessionParam() : Param could not be changed because it was not found!\nname=%s "
        "\noldValue=%s \nnewVal=%s",
        qUtf8Printable(name), qUtf8Printable(oldValue), qUtf8Printable(newValue));
    return false;
}

bool SDP::setTimeParam(int idx, const QString& name, const QString& oldValue, const QString& newValue)
{
    if (!isIndex(m_timeDescs, idx))
        return false;
    if (!isLine("setTimeParam", name, newValue))
        return false;
    if (setParam(m_timeDescs[idx], name, oldValue, newValue))
        return true;
    NUVIKA_WARNING(lcMedia,
        "SDP::changeTimeParam() : Param could not be changed because it was not found!\nname=%s "
        "\noldValue=%s \nnewVal=%s",
        qUtf8Printable(name), qUtf8Printable(oldValue), qUtf8Printable(newValue));
    return false;
}

bool SDP::setMediaParam(int idx, const QString& name, const QString& oldValue, const QString& newValue)
{
    if (!isIndex(m_mediaDescs, idx))
        return false;
    if (!isLine("setMediaParam", name, newValue))
        return false;
    if (setParam(m_mediaDescs[idx], name, oldValue, newValue))
        return true;
    NUVIKA_WARNING(lcMedia,
        "SDP::changeMediaParam() : Param could not be changed because it was not found!\nname=%s "
        "\noldValue=%s \nnewVal=%s",
        qUtf8Printable(name), qUtf8Printable(oldValue), qUtf8Printable(newValue));
    return false;
}

bool SDP::removeSessionParam(const QString& name, const QString& value)
{
    if (m_sessionParams.removeOne({name, value}))
        return true;
    NUVIKA_WARNING(lcMedia,
        "SDP::removeSessionParam() : Param could not be deleted because it was not found!\nname=%s\n "
        "value=%s",
        qUtf8Printable(name), qUtf8Printable(value));
    return false;
}

bool SDP::removeTimeParam(int idx, const QString& name, const QString& value)
{
    if (!isIndex(m_timeDescs, idx))
        return false;
    if (m_timeDescs[idx].removeOne({name, value}))
        return true;
    NUVIKA_WARNING(lcMedia,
        "SDP::removeTimeParam() : Param could not be deleted because it was not found!\nname=%s\n value=%s",
        qUtf8Printable(name), qUtf8Printable(value));
    return false;
}

bool SDP::removeMediaParam(int idx, const QString& name, const QString& value)
{
    if (!isIndex(m_mediaDescs, idx))
        return false;
    if (m_mediaDescs[idx].removeOne({name, value}))
        return true;
    NUVIKA_WARNING(lcMedia,
        "SDP::removeMediaParam() : Param could not be deleted because it was not found!\nname=%s\n value=%s",
        qUtf8Printable(name), qUtf8Printable(value));
    return false;
}

bool SDP::removeTimeDesc(int idx)
{
    if (!isIndex(m_timeDescs, idx)) {
        NUVIKA_WARNING(lcMedia,
            "SDP::removeMedia() : Could not remove time desc! Invalid idx: %d! Number of time desc: %d", idx,
            getNumTimeDesc());
        return false;
    }
    m_timeDescs.remove(idx);
    return true;
}

bool SDP::removeMediaDesc(int idx)
{
    if (!isIndex(m_mediaDescs, idx)) {
        NUVIKA_WARNING(lcMedia,
            "SDP::removeMedia() : Could not remove media desc! Invalid idx: %d! Number of media desc: %d",
            idx, getNumMediaDesc());
        return false;
    }
    m_mediaDescs.remove(idx);
    return true;
}

bool SDP::setMediaAttribute(int idx, const QString& name, const QString& value)
{
    if (!isIndex(m_mediaDescs, idx))
        return false;
    const ParamList& params = m_mediaDescs.at(idx);
    const auto found = findAttribute(params, name);
    const QString oldValue = found == params.end() ? QString() : found->second;
    return setMediaParam(idx, QStringLiteral("a"), oldValue, QStringLiteral("%1:%2").arg(name, value));
}

bool SDP::replaceMediaAttribute(int idx, const QString& name, const QString& value)
{
    if (!isIndex(m_mediaDescs, idx))
        return false;
    ParamList& params = m_mediaDescs[idx];
    const auto found = findAttribute(params, name);
    if (found == params.end() || !isLine("replaceMediaAttribute", name, value))
        return false;
    found->second = name + QLatin1Char(':') + value;
    return true;
}
