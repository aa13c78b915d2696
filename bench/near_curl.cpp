// libcurl, one easy handle that keeps its connection.
#include "Common.h"

#include <curl/curl.h>
#include <string>

using namespace bench;

namespace
{
std::string body;

std::size_t take(char* data, std::size_t size, std::size_t count, void* curl)
{
    curl_off_t length = 0;
    if (body.empty() && curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK
        && length > 0)
        body.reserve(static_cast<std::size_t>(length));
    body.append(data, size * count);
    return size * count;
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    CURL* curl = curl_easy_init();
    const std::string url
        = std::string("http://") + farHost() + ":" + std::to_string(a.port) + "/" + a.variant;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, curl);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 262144L);
    Stopwatch watch;
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        body.clear();
        if (curl_easy_perform(curl) != CURLE_OK)
            return 1;
    }
    watch.report();
    curl_easy_cleanup(curl);
    return 0;
}
