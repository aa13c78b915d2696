// A network camera in miniature: an HTTP server that asks for Digest credentials and serves a snapshot
// (/snapshot.jpg) and an endless stream of moving pictures (/live).
#pragma once

#include "DigestGuard.h"
#include "WebServer.h"

#include <QtCore/QList>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

class SimulatedCamera : public QObject
{
public:
    static constexpr char kUser[] = "viewer";
    static constexpr char kPassword[] = "simulated";
    static constexpr int kPicturesPerSecond = 12;

    explicit SimulatedCamera(int number);
    bool listen() { return m_server.listen(QHostAddress(QHostAddress::LocalHost), 0); }
    unsigned short port() const { return m_server.port(); }

private:
    void handle(HttpResponseClient& connection, const HttpRequestHeader& request);
    void tick();

    int m_nNumber;
    int m_nFrame;
    DigestGuard m_guard;
    QTimer m_timer;
    QList<QPointer<HttpResponseClient>> m_viewers;
    WebServer m_server;
};
