// The requests of one RTSP connection (RFC 2326), read as a camera reads them: strictly, and within bounds.
#pragma once

#include <KepNuvikaUtil/HttpHeader.h>

#include <QtCore/QByteArray>

// Fields as in HTTP, behind a first line of its own.
class RtspRequest : public HttpHeader
{
public:
    RtspRequest() = default;
    explicit RtspRequest(const QByteArray& head);

    const QString& method() const { return m_method; }
    // As the request line has it, and its path without slashes at its ends.
    const QString& url() const { return m_url; }
    QString path() const;
    const QString& version() const { return m_version; }
    // The name of the session, without its parameters.
    QString session() const;

    int majorVersion() const override { return 1; }
    int minorVersion() const override { return 0; }

protected:
    bool parseLine(const QString& line, int number) override;

private:
    QString m_method;
    QString m_url;
    QString m_version;
};

// Bodies and interleaved packets of the viewer, which are its reports, are passed over.
class RtspRequestReader
{
public:
    enum Event {
        eNeedMore,
        eRequest,
        eFailed // no request, or beyond a bound: nothing more comes
    };
    static constexpr int kMaxHead = 8192;
    static constexpr unsigned int kMaxBody = 4096;

    void feed(const char* data, int size);
    Event next();
    const RtspRequest& request() const { return m_request; }

private:
    bool skip();
    Event readHead();

    QByteArray m_input;
    int m_nAt = 0; // read so far
    int m_nSeen = 0; // behind that: known to hold no end of a head
    int m_nSkip = 0; // of a body or packet
    bool m_bFailed = false;
    RtspRequest m_request;
};
