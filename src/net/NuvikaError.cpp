#include <KepNuvikaUtil/NuvikaError.h>

#define NUVIKA_NAMED(code)                                                                                   \
    case e##code:                                                                                            \
        return #code

// The compiler warns of an enumerator that is missing here.
const char* NuvikaError::name(int code)
{
    switch (static_cast<Code>(code)) {
        NUVIKA_NAMED(Success);
        NUVIKA_NAMED(HandshakeTimeout);
        NUVIKA_NAMED(NoDevice);
        NUVIKA_NAMED(Cancelled);
        NUVIKA_NAMED(InProgress);
        NUVIKA_NAMED(Interrupted);
        NUVIKA_NAMED(AccessDenied);
        NUVIKA_NAMED(BadAddress);
        NUVIKA_NAMED(InvalidArgument);
        NUVIKA_NAMED(TooManyDescriptors);
        NUVIKA_NAMED(WouldBlock);
        NUVIKA_NAMED(AlreadyConnecting);
        NUVIKA_NAMED(NotASocket);
        NUVIKA_NAMED(DestinationRequired);
        NUVIKA_NAMED(MessageTooLong);
        NUVIKA_NAMED(WrongProtocolType);
        NUVIKA_NAMED(NoSuchOption);
        NUVIKA_NAMED(ProtocolNotSupported);
        NUVIKA_NAMED(SocketTypeNotSupported);
        NUVIKA_NAMED(OperationNotSupported);
        NUVIKA_NAMED(ProtocolFamilyNotSupported);
        NUVIKA_NAMED(FamilyNotSupported);
        NUVIKA_NAMED(AddressInUse);
        NUVIKA_NAMED(AddressNotAvailable);
        NUVIKA_NAMED(NetworkDown);
        NUVIKA_NAMED(NetworkUnreachable);
        NUVIKA_NAMED(NetworkReset);
        NUVIKA_NAMED(ConnectionAborted);
        NUVIKA_NAMED(ConnectionReset);
        NUVIKA_NAMED(NoBuffers);
        NUVIKA_NAMED(IsConnected);
        NUVIKA_NAMED(NotConnected);
        NUVIKA_NAMED(ShutDown);
        NUVIKA_NAMED(TimedOut);
        NUVIKA_NAMED(ConnectionRefused);
        NUVIKA_NAMED(TooManyLinks);
        NUVIKA_NAMED(NameTooLong);
        NUVIKA_NAMED(HostDown);
        NUVIKA_NAMED(HostUnreachable);
        NUVIKA_NAMED(SystemCallFailed);
        NUVIKA_NAMED(HostNotFound);
        NUVIKA_NAMED(TryAgain);
        NUVIKA_NAMED(NoRecovery);
        NUVIKA_NAMED(NoData);
    }
    return "";
}
