// libcurl in the MJPEG rows: its multi_socket interface over epoll, with the limit row's parser.
#include "Pictures.h"

#include <array>
#include <curl/curl.h>

#include <sys/epoll.h>

using namespace bench;

namespace
{
int ep = -1;
long timerWait = -1; // until libcurl wants to be called, milliseconds

int watchSocket(CURL*, curl_socket_t s, int what, void*, void* known)
{
    epoll_event event{};
    event.data.fd = s;
    event.events
        = ((what & CURL_POLL_IN) != 0 ? EPOLLIN : 0U) | ((what & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0U);
    if (what == CURL_POLL_REMOVE)
        return epoll_ctl(ep, EPOLL_CTL_DEL, s, nullptr);
    (void)known;
    if (epoll_ctl(ep, EPOLL_CTL_MOD, s, &event) != 0)
        epoll_ctl(ep, EPOLL_CTL_ADD, s, &event);
    return 0;
}

int setTimer(CURLM*, long milliseconds, void*)
{
    timerWait = milliseconds;
    return 0;
}

std::size_t take(char* data, std::size_t size, std::size_t count, void* reader)
{
    static_cast<PartReader*>(reader)->feed(data, size * count);
    return size * count;
}
} // namespace

int main(int argc, char** argv)
{
    const Arguments a(argc, argv);
    ep = epoll_create1(EPOLL_CLOEXEC);
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, watchSocket);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, setTimer);
    const std::string url = std::string("http://") + farHost() + ":" + std::to_string(a.port) + "/pictures";
    std::vector<std::unique_ptr<PartReader>> readers;
    for (int i = 0; i < a.connections; ++i) {
        readers.push_back(std::make_unique<PartReader>(a));
        CURL* camera = curl_easy_init();
        curl_easy_setopt(camera, CURLOPT_URL, url.c_str());
        curl_easy_setopt(camera, CURLOPT_NOSIGNAL, 1L); // no signal handling around each call
        curl_easy_setopt(camera, CURLOPT_WRITEFUNCTION, take);
        curl_easy_setopt(camera, CURLOPT_WRITEDATA, readers.back().get());
        curl_easy_setopt(
            camera, CURLOPT_BUFFERSIZE, a.variant.empty() ? 262144L : std::atol(a.variant.c_str()));
        curl_multi_add_handle(multi, camera);
    }
    for (int running = 1; running > 0;) {
        std::array<epoll_event, 256> events;
        const int n = epoll_wait(ep, events.data(), events.size(), static_cast<int>(timerWait));
        if (n <= 0) {
            timerWait = -1;
            curl_multi_socket_action(multi, CURL_SOCKET_TIMEOUT, 0, &running);
        }
        for (int i = 0; i < n; ++i) {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            const int what = ((event.events & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0)
                | ((event.events & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0);
            curl_multi_socket_action(multi, event.data.fd, what, &running);
        }
    }
    return 1;
}
