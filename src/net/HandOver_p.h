// Private: a call that is handed to a worker while its caller waits.
#pragma once

#include <optional>

namespace Nuvika
{
class WorkerPool;

// The call's result, and its last error when it set one, as if the caller had made it. Empty when no worker
// can be had: nothing has run then, the record that names `function` is in the log, and the last error is as
// it was.
std::optional<int> handOver(
    const char* function, WorkerPool& pool, int (*call)(const void* context), const void* context);

template <class Call>
std::optional<int> handOver(const char* function, WorkerPool& pool, const Call& call)
{
    return handOver(
        function, pool, [](const void* context) { return (*static_cast<const Call*>(context))(); }, &call);
}
} // namespace Nuvika
