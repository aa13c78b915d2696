// How the sockets' values are shown in logs.
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/SocketCalls.h>

#include "core/Shown_p.h"

using namespace Nuvika;

namespace
{
QByteArray endText(const QHostAddress& address, unsigned short port)
{
    const QByteArray text = address.toString().toLatin1();
    const bool bIPv6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    return (bIPv6 ? '[' + text + ']' : text) + ':' + QByteArray::number(port);
}

QByteArray dateText(const QDateTime& date) { return date.toString(Qt::ISODate).toLatin1(); }
} // namespace

QDebug operator<<(QDebug debug, const NuvikaSslSocket::PeerCertificate& certificate)
{
    Shown shown(debug, "PeerCertificate");
    shown.when(certificate.sha256.isEmpty(), "none");
    if (!certificate.sha256.isEmpty())
        shown(certificate.subject)("by", certificate.issuer)(
            "from", dateText(certificate.validFrom).constData())(
            "until", dateText(certificate.validUntil).constData())(
            "sha256", certificate.sha256.toHex(':').constData());
    return debug;
}

QDebug operator<<(QDebug debug, const NuvikaUdpReceiver::Datagram& datagram)
{
    const QHostAddress sender
        = datagram.pIPv6 != nullptr ? QHostAddress(datagram.pIPv6) : QHostAddress(datagram.nIPv4);
    Shown(debug, "Datagram")("bytes", datagram.nSize)("from", endText(sender, datagram.nPort).constData());
    return debug;
}

QDebug NuvikaLLSock::operator<<(QDebug debug, const ADDR_V4_V6& address)
{
    QHostAddress host;
    unsigned short port = 0;
    getPortAndAddress(&address, &host, &port);
    Shown shown(debug, "ADDR_V4_V6");
    shown.when(host.isNull(), "none");
    if (!host.isNull())
        shown(endText(host, port).constData());
    return debug;
}

QDebug operator<<(QDebug debug, const TlsPin& pin)
{
    Shown shown(debug, "TlsPin");
    shown.when(pin.isNull(), "none");
    if (!pin.isNull())
        shown(pin.toText().toLatin1().constData());
    return debug;
}

uint qHash(const TlsPin& pin, uint seed) { return qHash(pin.sha256(), seed); }
