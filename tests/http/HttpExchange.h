// An HTTP client, and a server that speaks byte by byte.
#pragma once

#include "support/EventLoop.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/HttpClient.h>

#include <functional>
#include <gtest/gtest.h>
#include <memory>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

inline const QString kUser = QStringLiteral("user");
inline const QString kPassword = QStringLiteral("secret");

// A client, the log of its signals, and a server that speaks byte by byte.
struct Exchange {
    RawListener listener;
    RawSocket server;
    int nConnections = 0;
    QStringList events;
    std::function<void(const QString&)> onEvent;
    std::unique_ptr<HttpClient> client; // its end reports cancelled requests

    explicit Exchange(bool bKeepAlive = true)
        : client(std::make_unique<HttpClient>(QStringLiteral("127.0.0.1"), listener.port(), bKeepAlive))
    {
        const auto note = [this](const QString& text) {
            events << text;
            if (onEvent)
                onEvent(text);
        };
        const auto bytes = [](const char* data, int size) { return QString::fromLatin1(data, size); };
        HttpClient* c = client.get();
        QObject::connect(
            c, &HttpClient::responseHeaderReceived, [note](int id, const HttpResponseHeader& header) {
                note(QStringLiteral("head%1 %2").arg(id).arg(header.statusCode()));
            });
        QObject::connect(c, &HttpClient::requestFinished,
            [note, bytes](int id, const HttpResponseHeader& header, const char* data, int size, Marker) {
                note(QStringLiteral("done%1 %2 ").arg(id).arg(header.statusCode()) + bytes(data, size));
            });
        QObject::connect(
            c, &HttpClient::requestFailed, [note](int id) { note(QStringLiteral("failed%1").arg(id)); });
        QObject::connect(c, &HttpClient::requestCancelled,
            [note](int id) { note(QStringLiteral("cancelled%1").arg(id)); });
        QObject::connect(c, &HttpClient::multipartReplaceContent,
            [note, bytes](int, const HttpResponseHeader&, const char* type, const char* data, int size,
                Marker) { note(QStringLiteral("part %1 ").arg(QLatin1String(type)) + bytes(data, size)); });
        QObject::connect(c, &HttpClient::contentChunk,
            [note, bytes](int, const HttpResponseHeader&, const char* data, int size, Marker) {
                note(QStringLiteral("chunk ") + bytes(data, size));
            });
        QObject::connect(
            c, &HttpClient::error, [note](int code) { note(QStringLiteral("error %1").arg(code)); });
        QObject::connect(
            c, &HttpClient::sendEndOfUploadContentFinished, [note] { note(QStringLiteral("upload ended")); });
    }

    int get(const char* path = "/") { return client->get(QLatin1String(path), QString(), QString(), true); }

    // The next request head (and what came with it) on this or a new connection.
    QByteArray request()
    {
        QByteArray head;
        waitFor([&] {
            if (server.isOpen() && server.received().contains("\r\n\r\n")) {
                head = server.take();
                return true;
            }
            if (!server.isOpen() || server.atEnd()) {
                RawSocket next = listener.accept();
                if (next.isOpen()) {
                    server = std::move(next);
                    ++nConnections;
                }
            }
            return false;
        });
        return head;
    }
    bool expect(const QStringList& wanted)
    {
        waitFor([&] { return events.size() >= wanted.size(); });
        settle(5);
        EXPECT_EQ(events.join(QStringLiteral(" / ")).toStdString(),
            wanted.join(QStringLiteral(" / ")).toStdString());
        const bool bEqual = events == wanted;
        events.clear();
        return bEqual;
    }
};

inline QByteArray ok(const QByteArray& fields, const QByteArray& body = QByteArray())
{
    return "HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}
inline QByteArray sized(const QByteArray& body)
{
    return ok("content-length: " + QByteArray::number(body.size()) + "\r\n", body);
}
inline QStringList list(std::initializer_list<const char*> texts)
{
    QStringList result;
    for (const char* text : texts)
        result << QString::fromLatin1(text);
    return result;
}
