#pragma once

#include <KepNuvikaUtil/Export.h>

/// The codes of failures by name: what `error(int)` signals and SocketError::getLast() tell. The numbers are
/// Winsock's on every platform. `docs/errors.md` says for each what to do next.
///
///     if (code == NuvikaError::eConnectionRefused) ...
///
/// RtspClient::error() also tells the status of a server that refused: a number from 300 to 999, which is
/// none of these.
namespace NuvikaError
{
enum Code : int {
    eSuccess = 0, ///< nothing has failed
    eHandshakeTimeout = 5, ///< the peer did not finish its TLS handshake within 10 s
    eNoDevice = 55, ///< there is no such network interface
    eCancelled = 995, ///< ended by our own side, which closed the socket
    eInProgress = 997, ///< begun, and not done yet
    eInterrupted = 10004, ///< a signal interrupted the call
    eAccessDenied = 10013, ///< TLS: a certificate was refused, by us or by the peer; else: not permitted
    eBadAddress = 10014, ///< a pointer that the system cannot read
    eInvalidArgument = 10022, ///< an argument makes no sense, such as a URL that is none
    eTooManyDescriptors = 10024, ///< the process, or the system, has no descriptor left
    eWouldBlock = 10035, ///< not now: the socket's buffer is full, or nothing has come
    eAlreadyConnecting = 10037, ///< an earlier connect is under way
    eNotASocket = 10038, ///< no open descriptor, or not that of a socket
    eDestinationRequired = 10039, ///< no address to send to
    eMessageTooLong = 10040, ///< a message of more than 200 MiB, or a datagram that UDP cannot hold
    eWrongProtocolType = 10041, ///< the protocol does not fit the socket
    eNoSuchOption = 10042, ///< the socket has no such option
    eProtocolNotSupported = 10043, ///< the system does not know the protocol
    eSocketTypeNotSupported = 10044, ///< the system does not know the kind of socket
    eOperationNotSupported = 10045, ///< this kind of socket cannot do that
    eProtocolFamilyNotSupported = 10046, ///< the system does not know the protocol family
    eFamilyNotSupported = 10047, ///< the address is of no family, or of one that the socket does not take
    eAddressInUse = 10048, ///< somebody has that address and port
    eAddressNotAvailable = 10049, ///< no interface of this machine has that address
    eNetworkDown = 10050, ///< the interface is down
    eNetworkUnreachable = 10051, ///< no route leads there
    eNetworkReset = 10052, ///< the network dropped the connection
    /// TLS failed otherwise than by a certificate or in time; an HTTP or RTSP message cannot be read; or the
    /// system gave the connection up.
    eConnectionAborted = 10053,
    eConnectionReset = 10054, ///< the peer cut the connection off
    eNoBuffers = 10055, ///< the system has no memory for it
    eIsConnected = 10056, ///< the socket is connected already
    eNotConnected = 10057, ///< the socket is not connected
    eShutDown = 10058, ///< the sending direction was ended
    eTimedOut = 10060, ///< a time limit has passed, ours or the system's
    eConnectionRefused = 10061, ///< nobody listens on that port
    eTooManyLinks = 10062, ///< a path of symbolic links that goes round
    eNameTooLong = 10063, ///< a path that is too long
    eHostDown = 10064, ///< the machine is known to be off
    eHostUnreachable = 10065, ///< nobody has that address, or a router says so
    eSystemCallFailed = 10107, ///< no worker thread could be had, or a failure without a code of its own
    eHostNotFound = 11001, ///< no such host name, or no lookup could be made
    eTryAgain = 11002, ///< the name server does not answer
    eNoRecovery = 11003, ///< the name server refuses or fails
    eNoData = 11004 ///< the name has no address
};

/// The enumerator's name without its "e": "ConnectionRefused". Empty for any other number.
/// SocketError::format() has the system's text. Threads: any.
KEPNUVIKAUTIL_EXPORT const char* name(int code);
} // namespace NuvikaError
