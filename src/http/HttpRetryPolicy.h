#pragma once

/// What an HTTP client does when it loses the connection of a request.
struct HttpRetryPolicy {
    enum Kind {
        /// Up to three attempts, whatever is asked for, also where another cannot help.
        eAlways = 0,
        /// Up to three attempts where nobody can tell: the method is idempotent (RFC 9110, 9.2.2) or nothing
        /// of the request had left, nothing of an answer's content was handed out, and the reason may pass
        /// (a refused certificate, a wrong pass phrase do not).
        eIdempotent = 1,
        /// One attempt. A kept connection that the server ends at that moment fails its request, too.
        eNever = 2
    };

    Kind kind = eAlways;
    /// Milliseconds for which pieces or parts of an answer must have come until a loss counts as the first
    /// again, so that a stream that is lost once a week lives for ever; 0: losses are counted for as long as
    /// the request lives.
    int nStreamedMs = 0;
};
