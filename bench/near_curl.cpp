// libcurl, one easy handle that keeps its connection.
#include "Common.h"

#include <curl/curl.h>
#include <string>

using namespace bench;

namespace
{
std::string body;
bool bParts = false;

// With parts: finds each part by its head and drops it, the least that a reader of parts must do.
std::size_t take(char* data, std::size_t size, std::size_t count, void*)
{
    body.append(data, size * count);
    while (bParts) {
        const std::size_t end = body.find("\r\n\r\n");
        const std::size_t field = body.find("Content-Length: ");
        if (end == std::string::npos || field > end)
            break;
        const std::size_t whole
            = end + 4 + static_cast<std::size_t>(std::atoll(body.c_str() + field + 16)) + 2;
        if (body.size() < whole)
            break;
        body.erase(0, whole);
    }
    return size * count;
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    bParts = a.variant[0] == 'p';
    CURL* curl = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(a.port) + "/" + a.variant;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 262144L);
    Stopwatch watch;
    watch.start();
    for (long long i = 0; i < a.amount; ++i) {
        body.clear();
        curl_easy_perform(curl);
    }
    watch.report();
    curl_easy_cleanup(curl);
    return 0;
}
