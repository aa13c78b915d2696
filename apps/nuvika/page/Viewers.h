// Who looks at one stream of pictures.
#pragma once

#include <KepNuvikaUtil/HttpResponseClient.h>

#include <QtCore/QPointer>

#include <vector>

class Viewers
{
public:
    // Its answer becomes an endless stream.
    void add(HttpResponseClient& connection);
    // To each that keeps up; how many skip this picture.
    int send(const QByteArray& picture, const char* type);
    // Forgets those that have gone.
    void prune();
    int count() const { return static_cast<int>(m_connections.size()); }

private:
    std::vector<QPointer<HttpResponseClient>> m_connections;
};
