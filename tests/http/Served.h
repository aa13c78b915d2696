// A server connection under test and its peer, by plain system calls.
#pragma once

#include "support/EventLoop.h"
#include "support/RawPeer.h"

#include <KepNuvikaUtil/HttpResponseClient.h>

#include <functional>
#include <gtest/gtest.h>
#include <memory>

struct Served {
    RawListener listener;
    RawSocket client;
    std::unique_ptr<HttpResponseClient> server;
    QStringList events;
    std::function<void(const QString&)> onEvent;

    Served() : client(RawSocket::connectTo(listener.port()))
    {
        RawSocket accepted;
        waitFor([&] { return (accepted = listener.accept()).isOpen(); });
        server = std::make_unique<HttpResponseClient>(accepted.release(), false);
        const auto note = [this](const QString& text) {
            events << text;
            if (onEvent)
                onEvent(text);
        };
        HttpResponseClient* s = server.get();
        QObject::connect(s, &HttpResponseClient::requestReceived,
            [note](const HttpRequestHeader& header, const char* data, int size,
                NuvikaTcpSocket::QueuedConnNotAllowed) {
                note(header.method() + QLatin1Char(' ') + header.path() + QLatin1Char(' ')
                    + QString::fromLatin1(data, size));
            });
        QObject::connect(s, &HttpResponseClient::contentChunk,
            [note](
                const HttpRequestHeader&, const char* data, int size, NuvikaTcpSocket::QueuedConnNotAllowed) {
                note(QStringLiteral("chunk ") + QString::fromLatin1(data, size));
            });
        QObject::connect(s, &HttpResponseClient::multipartReplaceContent,
            [note](const HttpRequestHeader&, const char*, const char* data, int size,
                NuvikaTcpSocket::QueuedConnNotAllowed) {
                note(QStringLiteral("part ") + QString::fromLatin1(data, size));
            });
        QObject::connect(
            s, &HttpResponseClient::responseFinished, [note] { note(QStringLiteral("finished")); });
        QObject::connect(s, &HttpResponseClient::error, [note] { note(QStringLiteral("error")); });
        QObject::connect(
            s, &HttpResponseClient::disconnected, [note] { note(QStringLiteral("disconnected")); });
    }
    bool expect(std::initializer_list<const char*> wanted)
    {
        QStringList texts;
        for (const char* text : wanted)
            texts << QString::fromLatin1(text);
        waitFor([&] { return events.size() >= texts.size(); });
        settle(5);
        EXPECT_EQ(events.join(QStringLiteral(" / ")).toStdString(),
            texts.join(QStringLiteral(" / ")).toStdString());
        const bool bEqual = events == texts;
        events.clear();
        return bEqual;
    }
    void respond(int code, const QByteArray& body, const char* field = nullptr, const char* value = nullptr,
        bool bMore = false)
    {
        HttpResponseHeader header(code, QStringLiteral("X"));
        if (field == nullptr)
            header.setContentLength(body.size());
        else
            header.addValue(QLatin1String(field), QLatin1String(value));
        SharedPoolBuffer content = pool->getBuffer();
        content.setData(body.constData(), body.size());
        server->response(header, bMore, &content);
    }
    SharedBufferPool* pool = new SharedBufferPool;
    ~Served() { pool->release(); }
};
