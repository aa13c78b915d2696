// Private: what the tests ask of the cache of session descriptions.
#pragma once

namespace Nuvika
{
// How many entries were looked at so far to find those that go: the measure of what a miss costs.
unsigned long long sdpCacheEntriesLookedAt();
} // namespace Nuvika
