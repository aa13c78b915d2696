// Private: the head of an RTSP message (RFC 2326, sections 6 and 7): the fields of an HTTP head behind
// another first line, in either direction.
#pragma once

#include <KepNuvikaUtil/HttpHeader.h>

namespace Nuvika
{
class RtspHead : public HttpHeader
{
public:
    RtspHead();
    RtspHead(const QString& method, const QString& url);
    explicit RtspHead(int status);
    RtspHead(const RtspHead& other);
    RtspHead& operator=(const RtspHead& other);
    ~RtspHead() override = default;

    // Received bytes. Lines that are no field are skipped; not valid is a first line that is neither a
    // request nor an answer.
    static RtspHead fromBytes(const char* data, int size);

    bool isAnswer() const;
    int status() const; // of an answer
    QString reason() const; // may be empty
    QString method() const; // of a request
    QString url() const;
    // -1 when it is missing or no number.
    qint64 cseq() const;
    // What the body's length is said to be; 0 when nothing can be read.
    qint64 bodyLength() const;

    QString toString() const override;
    int majorVersion() const override { return 1; }
    int minorVersion() const override { return 0; }
};
} // namespace Nuvika
