#include "Viewers.h"

#include "WebServer.h"

#include <algorithm>

void Viewers::add(HttpResponseClient& connection)
{
    WebServer::beginPictures(connection);
    m_connections.emplace_back(&connection);
}

int Viewers::send(const QByteArray& picture, const char* type)
{
    prune();
    int skipped = 0;
    for (const auto& viewer : m_connections) {
        if (viewer == nullptr || !viewer->isConnected())
            continue; // has gone meanwhile
        if (viewer->canSendContent())
            WebServer::sendPicture(*viewer, picture, type);
        else
            ++skipped;
    }
    return skipped;
}

void Viewers::prune()
{
    m_connections.erase(std::remove_if(m_connections.begin(), m_connections.end(),
                            [](const auto& viewer) { return viewer == nullptr || !viewer->isConnected(); }),
        m_connections.end());
}
