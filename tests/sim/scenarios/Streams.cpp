#include "sim/World.h"
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
SCENARIO(streams)
{
    world.listen("10.0.0.9", 7,
        [](sim::Peer& peer) { peer.onBytes = [&peer](const QByteArray& bytes) { peer.write(bytes); }; });
    NuvikaTcpSocket socket;
    int got = 0;
    bool over = false;
    QObject::connect(&socket, &NuvikaTcpSocket::connected,
        [&] { socket.sendData(QByteArray(100000, 'x').constData(), 100000); });
    QObject::connect(&socket, &NuvikaTcpSocket::dataReceived, [&](const char*, int size) { got += size; });
    QObject::connect(&socket, &NuvikaTcpSocket::error, [&] { over = true; });
    socket.connectToHost(QHostAddress(QStringLiteral("10.0.0.9")), 7);
    world.expect(
        world.runUntil([&] { return over || got == 100000; }, 600000), "nothing more came back: %d", got);
}
