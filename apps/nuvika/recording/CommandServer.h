// The recorder's command port: framed, encrypted messages. A command line comes, an answer goes:
//   status                        one line for each camera, as a definition: split it with parseDefinition()
//                                 that decodes nothing, since a name may look like a marked hex string
//   snapshot:camera=IDENTIFIER    the camera's last picture
//   help                          what there is
// An answer is a line, "ok" or "error:reason=...", and what belongs to it.
#pragma once

#include <KepNuvikaUtil/NuvikaTcpServer.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>

class BufferSocketFixedFifo;
class Recorder;

class CommandServer : public QObject
{
public:
    explicit CommandServer(const Recorder& recorder);

    bool listen(unsigned short port) { return m_server.listen(QHostAddress(QHostAddress::LocalHost), port); }
    unsigned short port() const { return m_server.serverPort(); }

private:
    void accept(int descriptor);
    QByteArray answer(const QString& line) const;
    QByteArray status() const;
    QByteArray snapshot(const QString& identifier) const;

    const Recorder& m_recorder;
    NuvikaTcpServer m_server;
};
