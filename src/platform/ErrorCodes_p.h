// Private: the one table between the system's error numbers and the codes that the library reports
// everywhere (Winsock's), with the system's texts. The last error belongs to the calling thread.
#pragma once

#include <string>

namespace Nuvika::ErrorCodes
{
constexpr int kHandshakeTimeout = 5;
constexpr int kNoDevice = 55;
constexpr int kCancelled = 995;
constexpr int kAccessDenied = 10013;
constexpr int kInvalidArgument = 10022;
constexpr int kTooManyDescriptors = 10024;
constexpr int kWouldBlock = 10035;
constexpr int kAlready = 10037;
constexpr int kMessageSize = 10040;
constexpr int kFamilyNotSupported = 10047;
constexpr int kAddressNotAvailable = 10049;
constexpr int kConnectionAborted = 10053;
constexpr int kConnectionReset = 10054;
constexpr int kNoBuffers = 10055;
constexpr int kIsConnected = 10056;
constexpr int kNotConnected = 10057;
constexpr int kCallFailure = 10107;
constexpr int kTimedOut = 10060;
constexpr int kConnectionRefused = 10061;
constexpr int kHostNotFound = 11001;

int fromErrno(int error);
int fromResolver(int result);
// The system's text, "Success" for 0, empty for a code that no table knows.
std::string text(int code);

int lastError();
void setLastError(int code);
} // namespace Nuvika::ErrorCodes
