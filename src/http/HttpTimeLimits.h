#pragma once

/// How long an HTTP client waits, in milliseconds; 0: for ever. A limit that passes closes the connection:
/// error(10060), then requestFailed(), and no repetition. It may be noticed late, by a twentieth.
struct HttpTimeLimits {
    int nConnect = 0; ///< name, TCP, a proxy and TLS together
    int nFirstByte = 0; ///< from the request to its answer; begins anew while the request still leaves
    int nSilence = 0; ///< during an exchange, no byte comes and none leaves
    int nRequest = 0; ///< from its turn to its end, repetitions and a streamed answer included
};
