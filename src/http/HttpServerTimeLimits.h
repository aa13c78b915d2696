#pragma once

/// How long a server's connection bears with its peer, in milliseconds; 0: for ever. Each holds to within a
/// quarter of the shortest one. None runs while the owner owes an answer.
struct HttpServerTimeLimits {
    int nIdle = 0; ///< until a request begins: behind the connection's begin and behind each answer
    int nHead = 0; ///< from the first byte of a request's head to its end
    int nBody = 0; ///< of a request's body, so long without the next KiB
    int nAnswer = 0; ///< of an answer that the peer holds up, so long without the next KiB
};
