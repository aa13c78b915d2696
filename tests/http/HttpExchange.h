// A client under test, with a server that speaks byte by byte.
#pragma once

#include "support/EventLoop.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/HttpClient.h>

#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <memory>
#include <type_traits>
#include <utility>

using Marker = NuvikaTcpSocket::QueuedConnNotAllowed;

inline const QString kUser = QStringLiteral("user");
inline const QString kPassword = QStringLiteral("secret");

inline QString latin1(const char* data, int size) { return QString::fromLatin1(data, size); }
inline QStringList list(std::initializer_list<const char*> texts)
{
    QStringList result;
    for (const char* text : texts)
        result << QString::fromLatin1(text);
    return result;
}

// The log of an object's signals.
struct Told {
    QStringList events;
    std::function<void(const QString&)> onEvent;

    void note(const QString& text)
    {
        events << text;
        if (onEvent)
            onEvent(text);
    }
    bool sees(const QString& event)
    {
        const bool bSeen = waitFor([&] { return events.contains(event); });
        EXPECT_TRUE(bSeen) << event.toStdString() << ": "
                           << events.join(QStringLiteral(" / ")).left(500).toStdString();
        return bSeen;
    }
    bool sees(const char* event) { return sees(QLatin1String(event)); }
    bool expect(const QStringList& wanted)
    {
        waitFor([&] { return events.size() >= wanted.size(); });
        settle(5);
        EXPECT_EQ(events.join(QStringLiteral(" / ")).toStdString(),
            wanted.join(QStringLiteral(" / ")).toStdString());
        return std::exchange(events, QStringList()) == wanted;
    }
    bool expect(std::initializer_list<const char*> wanted) { return expect(list(wanted)); }

    template <class Client>
    void watch(Client& client)
    {
        Client* c = &client;
        QObject::connect(c, &Client::responseHeaderReceived, [this](int id, const HttpResponseHeader& head) {
            note(QStringLiteral("head%1 %2").arg(id).arg(head.statusCode()));
        });
        QObject::connect(c, &Client::requestFinished,
            [this](int id, const HttpResponseHeader& head, const char* data, int size, Marker) {
                note(QStringLiteral("done%1 %2 ").arg(id).arg(head.statusCode()) + latin1(data, size));
            });
        QObject::connect(
            c, &Client::requestFailed, [this](int id) { note(QStringLiteral("failed%1").arg(id)); });
        if constexpr (std::is_same_v<Client, HttpClient>)
            QObject::connect(c, &Client::requestCancelled,
                [this](int id) { note(QStringLiteral("cancelled%1").arg(id)); });
        QObject::connect(c, &Client::multipartReplaceContent,
            [this](int, const HttpResponseHeader&, const char* type, const char* data, int size, Marker) {
                note(QStringLiteral("part %1 ").arg(QLatin1String(type)) + latin1(data, size));
            });
        QObject::connect(c, &Client::contentChunk,
            [this](int, const HttpResponseHeader&, const char* data, int size, Marker) {
                note(QStringLiteral("chunk ") + latin1(data, size));
            });
        QObject::connect(c, &Client::error, [this](int code) { note(QStringLiteral("error %1").arg(code)); });
        QObject::connect(
            c, &Client::sendEndOfUploadContentFinished, [this] { note(QStringLiteral("upload ended")); });
    }
};

template <class Client>
struct ExchangeOf : Told {
    RawListener listener;
    RawSocket server;
    int nConnections = 0;
    std::unique_ptr<Client> client; // its end reports cancelled requests

    ExchangeOf() : client(std::make_unique<Client>(QStringLiteral("127.0.0.1"), listener.port(), true))
    {
        watch(*client);
    }

    int get(const char* path = "/") { return client->get(QLatin1String(path), QString(), QString(), true); }
    int login(const char* path = "/") { return client->get(QLatin1String(path), kUser, kPassword, true); }
    int send(const HttpRequestHeader& header, bool bStream = false)
    {
        return client->request(header, bStream, nullptr, QString(), QString(), 0);
    }

    // The next request head (and what came with it) on this or a new connection.
    QByteArray request(const QByteArray& end = "\r\n\r\n")
    {
        QByteArray head;
        waitFor([&] {
            if (server.isOpen() && server.received().contains(end)) {
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
    // A further connection; false when that was told instead.
    bool connects(const char* unless)
    {
        const auto isOver = [&] { return events.contains(QLatin1String(unless)); };
        waitFor([&] {
            server = isOver() ? RawSocket() : listener.accept();
            return server.isOpen() || isOver();
        });
        nConnections += server.isOpen() ? 1 : 0;
        return server.isOpen();
    }
    void ask() // until the server has the request
    {
        get();
        request();
    }
};
using Exchange = ExchangeOf<HttpClient>;

inline QByteArray ok(const QByteArray& fields, const QByteArray& body = QByteArray())
{
    return "HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}
inline QByteArray denied(const QByteArray& challenge)
{
    return "HTTP/1.1 401 No\r\ncontent-length: 0\r\nWWW-Authenticate: " + challenge + "\r\n\r\n";
}
inline QByteArray sized(const QByteArray& body)
{
    return ok("content-length: " + QByteArray::number(body.size()) + "\r\n", body);
}
