// Encrypted messages between two processes, here in one: a recorder that answers command lines, and a client.
#include <KepNuvikaUtil/KepNuvikaUtil.h>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <memory>

namespace
{
QByteArray answer(const QString& line)
{
    QString command;
    QMap<QString, QVariant> parameters;
    parseCommand(line, command, parameters);
    if (command != QLatin1String("open"))
        return "error:reason=unknown";
    const CreateDbId door(parameters.value(QStringLiteral("name")).toString(), 3, DbIdType::eCAM);
    if (parameters.value(QStringLiteral("code")).toString() != QLatin1String("4711"))
        return "error:reason=code";
    return "ok:id=" + door.getDbId().toUtf8();
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);

    NuvikaTcpServer server;
    std::unique_ptr<BufferSocketQueued> recorder;
    QObject::connect(&server, &NuvikaTcpServer::newConnectionDesc, [&recorder](int socket) {
        recorder = std::make_unique<BufferSocketQueued>(true);
        QObject::connect(recorder.get(), &BufferSocketBase::incomingBuffer, [&](const char* data, int size) {
            const QByteArray text = answer(QString::fromUtf8(data, size));
            recorder->sendBuffer(text.constData(), text.size());
        });
        recorder->setSocketDescriptor(socket);
    });
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 1;

    BufferSocketQueued client(true);
    QObject::connect(&client, &BufferSocketBase::connected, [&client] {
        // A secret in a command line travels as a marked hex string; the parser decodes it.
        const QString name = escapeString(QStringLiteral("Front door"), QStringLiteral(";="));
        const QString code = StrHlp::toHex(QStringLiteral("4711"));
        const QByteArray line = QStringLiteral("open:name=%1;code=%2").arg(name, code).toUtf8();
        client.sendBuffer(line.constData(), line.size());
    });
    QObject::connect(&client, &BufferSocketBase::incomingBuffer, [](const char* data, int size) {
        std::printf("%.*s\n", size, data);
        QCoreApplication::exit(0);
    });
    QObject::connect(&client, &BufferSocketBase::error, [](int) { QCoreApplication::exit(1); });
    client.connectToHost(QHostAddress(QHostAddress::LocalHost), server.serverPort());
    return QCoreApplication::exec();
}
