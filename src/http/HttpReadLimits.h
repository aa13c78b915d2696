#pragma once

/// What a peer may make an HTTP connection keep, in bytes. The defaults are far above what is ever honest; a
/// peer that exceeds one ends its request with a clear error and its connection.
struct HttpReadLimits {
    int nHead = 1 << 20; ///< a head, a part's head, the trailers: each
    int nChunkSizeLine = 4096; ///< a chunk's size with its extensions
    int nPart = 64 << 20; ///< one part of a multipart body
    int nContent = 1 << 30; ///< a body that is collected to be delivered whole
};
