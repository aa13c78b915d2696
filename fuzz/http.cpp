// A server's answers, read at once and cut into pieces: the outcome must be the same.
#include <KepNuvikaUtil/HttpAuthenticator.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>

#include "http/HttpChallenge_p.h"
#include "http/HttpMessageReader_p.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

using namespace Nuvika;

namespace
{
QByteArray outcome(const QByteArray& stream, int piece, HttpMessageReader::Grade grade)
{
    using Event = HttpMessageReader::Event;
    HttpMessageReader reader(grade);
    QByteArray log;
    QByteArray content;
    for (int at = 0; at < stream.size(); at += piece) {
        const QByteArray bytes = stream.mid(at, piece); // its end is the end of the memory
        reader.feed(bytes.constData(), bytes.size());
        for (Event event = reader.next(); event != Event::NeedMore; event = reader.next()) {
            if (event == Event::Failed)
                return log + "F";
            if (event == Event::Content) {
                content.append(reader.data(), reader.size());
                continue;
            }
            log += QByteArray::number(static_cast<int>(event)) + content;
            content.clear();
            if (event == Event::Head) {
                const auto header = HttpResponseHeader::fromBytes(reader.data(), reader.size());
                HttpBody body = HttpBody::fromFields(header, HttpBody::UntilEnd);
                body.detectMultipart(header);
                log += header.toString().toLatin1();
                reader.setBody(body);
            } else if (event == Event::Part) {
                log += reader.contentType() + QByteArray(reader.data(), reader.size());
            }
        }
    }
    return log + content + (reader.endOfStream() ? "end" : "cut");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray stream(reinterpret_cast<const char*>(data), static_cast<int>(size));
    for (const auto grade : {HttpMessageReader::Lenient, HttpMessageReader::Strict}) {
        const QByteArray whole = outcome(stream, std::max(stream.size(), 1), grade);
        for (const int piece : {1, 7}) {
            if (outcome(stream, piece, grade) != whole)
                std::abort();
        }
    }
    HttpRequestHeader::fromBytes(stream.constData(), stream.size()).toString();
    const QByteArray challenge = stream.left(stream.indexOf('\n'));
    HttpAuthenticator authenticator;
    const QByteArray chosen = chooseChallenge({challenge, QByteArray("Basic realm=\"r\"")});
    const QString user = QString::fromLatin1(challenge);
    const QByteArray answer = authenticator.digestResponse(chosen, "GET", "/", user, user, challenge);
    if (answer.isEmpty() != authenticator.isNull() || answer.contains('\n'))
        std::abort();
    authenticator.digestMd5Response(challenge, "GET", "/", "user", "password", QByteArray());
    if (!authenticator.isNull())
        authenticator.nextDigestMd5Response("GET", "/", "user", "password", QByteArray());
    HttpRequestHeader request(QString::fromLatin1(stream));
    request.toString();
    return 0;
}
