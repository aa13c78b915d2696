// epoll and eventfd.
#pragma once

#include "sim/Kernel.h"

#include <deque>

#include <sys/epoll.h>

namespace sim
{
// As Linux's: something that happens to a file puts it on the ready list; a wait looks at what is there now,
// and reports an edge-triggered file once.
class Epoll : public File
{
public:
    unsigned int poll() override;
    void released() override;

    int add(const std::shared_ptr<File>& file, const epoll_event& event);
    int remove(File& file);
    void notice(File& file, unsigned int events);
    int wait(epoll_event* events, int most);

private:
    struct Item {
        std::weak_ptr<File> pFile;
        epoll_event event;
        bool bReady;
    };
    unsigned int stateOf(const Item& item) const;

    std::map<File*, Item> m_items;
    std::deque<File*> m_ready;
};

class EventFd : public File
{
public:
    unsigned int poll() override { return EPOLLOUT | (m_nCount > 0 ? EPOLLIN : 0U); }
    long write(std::uint64_t value);
    long read(std::uint64_t* value);

private:
    std::uint64_t m_nCount = 0;
};
} // namespace sim
