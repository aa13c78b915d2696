#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QString>

class QDebug;

/// Why an exchange failed: for programs, for the log of codes, and for people.
struct HttpFailure {
    enum Reason {
        eNone = 0, ///< it did not, or is not remembered any more
        eCancelled, ///< by cancelRequest() or shutdown()
        eRefused, ///< it would not have arrived as it was meant, and was not sent
        eLookup, ///< the host's name has no address
        eConnect, ///< no connection came about
        eTls, ///< TLS was not set up: protocols, our own certificate or pass phrase, a stalled handshake
        eCertificate, ///< a certificate was refused, by us or by the peer
        eLost, ///< the connection ended too early
        eTimeLimit, ///< one of the time limits has passed
        eBadMessage, ///< what the peer sent is no HTTP, or no head, chunk or part of it within the limits
        eTooLarge, ///< the body is longer than what may be collected
        eProxy, ///< the proxy was not reached, or did not open the way
        eDevice ///< the device that gives or takes the body failed
    };

    Reason reason = eNone;
    int code = 0; ///< as error(int) tells it; 0: the peer ended the connection in good order, or none fits
    QString text; ///< a sentence
};

/// For logs.
KEPNUVIKAUTIL_EXPORT QDebug operator<<(QDebug debug, const HttpFailure& failure);
