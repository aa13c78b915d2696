// Private: reads HTTP/1.1 messages from a stream of bytes, on the client's and on the server's side, plain or
// decrypted: the head, a body by length, by chunks or until the connection's end, and the parts in it.
//
// Pulled, not pushing: feed() gives it what was received, next() is called until it says NeedMore. So the
// reader never calls out, and its owner looks after its own lifetime between two events. Content is handed
// out in place. Nothing is scanned twice, and everything that is kept is bounded.
#pragma once

#include "http/MultipartReader_p.h"

#include <cstddef>
#include <optional>
#include <string>

class HttpHeader;

namespace Nuvika
{
// How the body of a message is delimited.
struct HttpBody {
    enum Kind { None, Length, Chunked, UntilEnd };
    Kind kind = None;
    long long nLength = 0;
    bool bMultipart = false;
    QByteArray boundary;
    bool bAmbiguous = false; // a length beside chunks: the connection is not used again
    bool bInvalid = false; // lengths that differ, are negative, no number or too large

    // What the fields say: chunked before length, else `otherwise`. Without a length beside it, the last
    // transfer coding counts, whatever its letters' case; with one, "chunked" to the letter.
    static HttpBody fromFields(const HttpHeader& header, Kind otherwise);
    // Looks whether the content is a "multipart/x-mixed-replace" stream.
    void detectMultipart(const HttpHeader& header);
};

// What the transfer codings of a request are to a server: none or chunked ones, which it reads, or others.
bool hasForeignCoding(const HttpHeader& header);

// What the "connection" fields and the version say.
bool wantsClose(const HttpHeader& header);

class HttpMessageReader
{
public:
    enum class Event {
        NeedMore,
        Head, // data(), size(): the head without its empty line; setBody() must follow
        Content, // data(), size(): a piece of the body, without its chunk framing
        Part, // data(), size(), contentType(): one part of a multipart body
        PartSkipped, // something else stands where a part's boundary should
        End, // the message is complete; another one may follow
        Failed // not HTTP, or over a limit; nothing more comes
    };

    // Servers read chunks to the letter (RFC 9112, 7.1); what answers are framed by is read leniently.
    enum Grade { Lenient, Strict };

    explicit HttpMessageReader(Grade grade = Lenient) : m_grade(grade) { }

    void setLimits(const HttpReadLimits& limits) { m_limits = limits; }
    void reset();
    // The bytes must stay in place until next() says NeedMore or takeRest() was called.
    void feed(const char* data, int size)
    {
        m_pIn = data;
        m_nIn = static_cast<std::size_t>(size);
    }
    Event next();
    // How many of the next bytes to be received are content for certain; 0 while something waits to be read.
    std::size_t contentAhead() const;
    // Where they belong in a part of known length, and what was received there; next() follows.
    iovec partTarget() { return m_multipart ? m_multipart->target(contentAhead()) : iovec{}; }
    void partPlaced(std::size_t size);
    bool isMultipart() const { return m_multipart.has_value(); }
    // So many bytes of content were received elsewhere; next() follows.
    void contentPlaced(std::size_t size);
    void setBody(const HttpBody& body);
    // The connection has ended: true when that completes the message.
    bool endOfStream();
    // The bytes that were not read yet, which the reader forgets.
    QByteArray takeRest();
    bool hasOnlyLineEndsLeft() const;
    // Stopping before the next event loses nothing: feed() goes on with the last unread() bytes.
    bool canPause() const { return !m_bPartsWait && !(m_state == State::Length && m_nLeft == 0); }
    int unread() const { return static_cast<int>(m_nIn); }
    // A part of a head has come.
    bool isInHead() const { return m_state == State::Head && !m_head.empty(); }

    const char* data() const { return m_pData; }
    int size() const { return static_cast<int>(m_nData); }
    const char* contentType() const { return m_multipart->contentType(); }

private:
    enum class State {
        Head,
        AwaitBody,
        Length,
        UntilEnd,
        ChunkSize,
        ChunkData,
        ChunkEnd,
        ChunkEndLf,
        Trailer,
        Failed
    };
    enum class LineEnd { Start, Inside, Lf, LfCr };

    Event readHead();
    Event readLength();
    Event readChunkSize();
    Event readChunkData();
    Event readChunkEnd();
    Event readTrailer();
    Event deliver(std::size_t size);
    Event nextPart();
    std::size_t scanHead(bool* bComplete);
    bool takeLine(std::size_t limit, bool* bTooLong);
    bool parseChunkSize();
    Event finish();
    Event fail();

    const Grade m_grade;
    HttpReadLimits m_limits;
    const char* m_pIn = nullptr;
    std::size_t m_nIn = 0;
    State m_state = State::Head;
    LineEnd m_lineEnd = LineEnd::Start;
    std::string m_head; // the head so far, when it came in pieces
    std::string m_line; // a chunk-size or trailer line, likewise
    std::size_t m_nTrailerSize = 0;
    long long m_nLeft = 0; // of the body or the chunk
    HttpBody m_body;
    std::optional<MultipartReader> m_multipart; // while the body is one
    bool m_bPartsWait = false;
    const char* m_pData = nullptr;
    std::size_t m_nData = 0;
};
} // namespace Nuvika
