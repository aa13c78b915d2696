// Private: reads a session description line by line, and gives the attributes of each section their meaning.
#pragma once

#include <KepNuvikaUtil/SdpDescription.h>

#include <QtCore/QStringView>

namespace Nuvika
{
class SdpReader
{
public:
    explicit SdpReader(SdpDescription* description) : m_out(description) { }
    void read(const QByteArray& text);

private:
    void takeLine(QStringView line);
    void takeMedia(QStringView value);
    void takeConnection(QStringView value);
    void takeAttribute(QStringView value);
    bool takeDirection(QStringView name);
    void takeFormatAttribute(QStringView name, QStringView value);
    SdpFormat* formatFor(QStringView name);
    SdpFormat* addFormat(QStringView name);
    void takeParameters(QStringView value, SdpFormat* format);
    void complete(SdpMedia& media);

    SdpDescription* m_out;
    int m_nLines = 0;
    SdpMedia* m_media = nullptr; // the section, once one has begun
    bool m_bListed = false; // its "m" line names the formats
    bool m_bSkipping = false; // a section beyond the last
};
} // namespace Nuvika
