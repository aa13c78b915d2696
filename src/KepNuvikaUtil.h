/// \file
/// The whole library, its start and its end.
#pragma once

#include <KepNuvikaUtil/Allocation.h>
#include <KepNuvikaUtil/Assertion.h>
#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/BufferSocketBase.h>
#include <KepNuvikaUtil/BufferSocketFixedFifo.h>
#include <KepNuvikaUtil/BufferSocketQueued.h>
#include <KepNuvikaUtil/ClockTickerThread.h>
#include <KepNuvikaUtil/ClockToNtpMapper32.h>
#include <KepNuvikaUtil/ClockToNtpMapper64.h>
#include <KepNuvikaUtil/CommandParsing.h>
#include <KepNuvikaUtil/CreateDbId.h>
#include <KepNuvikaUtil/DataStreamBuffer.h>
#include <KepNuvikaUtil/DateTimeExt.h>
#include <KepNuvikaUtil/DbIdType.h>
#include <KepNuvikaUtil/DynamicByteFifo.h>
#include <KepNuvikaUtil/Export.h>
#include <KepNuvikaUtil/HMatrix2D.h>
#include <KepNuvikaUtil/HVector2D.h>
#include <KepNuvikaUtil/HostLookup.h>
#include <KepNuvikaUtil/HttpAuthenticator.h>
#include <KepNuvikaUtil/HttpClient.h>
#include <KepNuvikaUtil/HttpClientBase.h>
#include <KepNuvikaUtil/HttpContentRange.h>
#include <KepNuvikaUtil/HttpFailure.h>
#include <KepNuvikaUtil/HttpHeader.h>
#include <KepNuvikaUtil/HttpReadLimits.h>
#include <KepNuvikaUtil/HttpRequestHeader.h>
#include <KepNuvikaUtil/HttpResponseClient.h>
#include <KepNuvikaUtil/HttpResponseHeader.h>
#include <KepNuvikaUtil/HttpRetryPolicy.h>
#include <KepNuvikaUtil/HttpServerTimeLimits.h>
#include <KepNuvikaUtil/HttpTimeLimits.h>
#include <KepNuvikaUtil/HttpsClient.h>
#include <KepNuvikaUtil/LoggedInUser.h>
#include <KepNuvikaUtil/MemBlockPool.h>
#include <KepNuvikaUtil/NTPRange.h>
#include <KepNuvikaUtil/NTPTimestamp.h>
#include <KepNuvikaUtil/NUVIKA_RECT.h>
#include <KepNuvikaUtil/NUVIKA_SIZE.h>
#include <KepNuvikaUtil/NuvikaError.h>
#include <KepNuvikaUtil/NuvikaSslSocket.h>
#include <KepNuvikaUtil/NuvikaTcpServer.h>
#include <KepNuvikaUtil/NuvikaTcpSocket.h>
#include <KepNuvikaUtil/NuvikaTcpSocketQueued.h>
#include <KepNuvikaUtil/NuvikaUdpReceiver.h>
#include <KepNuvikaUtil/NuvikaUdpSender.h>
#include <KepNuvikaUtil/RTCPPacket.h>
#include <KepNuvikaUtil/RTPPacket.h>
#include <KepNuvikaUtil/RtcpCompound.h>
#include <KepNuvikaUtil/RtpAccessUnit.h>
#include <KepNuvikaUtil/RtpDepacketizer.h>
#include <KepNuvikaUtil/RtpReception.h>
#include <KepNuvikaUtil/RtpReorderBuffer.h>
#include <KepNuvikaUtil/RtpStatistics.h>
#include <KepNuvikaUtil/RtpTimeline.h>
#include <KepNuvikaUtil/RtpUnitFormat.h>
#include <KepNuvikaUtil/RtspClient.h>
#include <KepNuvikaUtil/RtspOptions.h>
#include <KepNuvikaUtil/RtspTrack.h>
#include <KepNuvikaUtil/SDP.h>
#include <KepNuvikaUtil/SdpDescription.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>
#include <KepNuvikaUtil/SocketCalls.h>
#include <KepNuvikaUtil/SocketError.h>
#include <KepNuvikaUtil/StrHlp.h>
#include <KepNuvikaUtil/StringConversions.h>
#include <KepNuvikaUtil/TlsPin.h>
#include <KepNuvikaUtil/VariableBuffer.h>
#include <KepNuvikaUtil/VariableBufferArray.h>
#include <KepNuvikaUtil/WinRecords.h>

/// Starts the host lookup service, without which sockets resolve no names, and returns when lookups can be
/// posted. A second call while it runs does nothing. When the system gives no thread, a critical record says
/// so, lookups are refused, and a later call tries again.
/// Threads: one controlling thread calls both, at the start and the end of the application.
KEPNUVIKAUTIL_EXPORT void KepNuvikaUtilInit();

/// Ends the service and the library's idle worker threads, however often KepNuvikaUtilInit() was called. A
/// lookup that hangs in the system's resolver is left behind after two seconds. Sockets may still be closed
/// afterwards.
KEPNUVIKAUTIL_EXPORT void KepNuvikaUtilCleanup();
