// The request engine's answers that go straight to a device of the caller's.
#include "http/HttpRequestEngine_p.h"

using namespace Nuvika;

int HttpRequestEngine::download(
    const HttpRequestHeader& header, QIODevice* device, const QString& user, const QString& password)
{
    Request request = makeRequest(header, false, nullptr, user, password, 0);
    request.target = std::make_shared<HttpDownloadTarget>(device);
    if (request.problem.isEmpty())
        request.problem = request.target->problem();
    return enqueue(std::move(request));
}

// This answer is a 2xx.
bool HttpRequestEngine::isDownloading() const
{
    return m_requests.front().target && m_requests.front().bStream;
}

// These three: false when the connection is over; a request that failed was told then.

bool HttpRequestEngine::beginDownload()
{
    return !isDownloading() || useTarget([](HttpDownloadTarget& target) { return target.begin(); });
}

bool HttpRequestEngine::flushDownload()
{
    return !isDownloading() || useTarget([](HttpDownloadTarget& target) { return target.flush(); });
}

bool HttpRequestEngine::writeDownload(const char* data, int size)
{
    const auto write = [data, size](HttpDownloadTarget& target) { return target.write(data, size); };
    if (!useTarget(write))
        return false;
    Request& front = m_requests.front();
    noteHandedOut(front);
    front.bHandedOut = false; // what a device has got can be taken back, or keeps it from being asked again
    const Watched::Watch watch = m_connection.watch();
    m_listener.downloadProgress(front.nId, m_nStreamed, m_nExpectedContentLength);
    return watch.holds();
}

// The device may call back into its owner, who may do anything.
template <class Use>
bool HttpRequestEngine::useTarget(Use use)
{
    const auto target = m_requests.front().target;
    const Watched::Watch watch = m_connection.watch();
    const bool bDone = use(*target);
    if (!watch.holds())
        return false;
    if (!bDone)
        failFront(deviceFailure(target->problem()), true);
    return bDone;
}
