// epoll and eventfd.
#pragma once

#include "sim/Kernel.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/epoll.h>

namespace sim
{
// As Linux's: something that happens to a file puts it on the ready list; a wait looks at what is there now,
// and reports an edge-triggered file once.
class Epoll : public File
{
public:
    unsigned int poll() override
    {
        const auto isReady = [this](File* file) { return stateOf(*file) != 0; };
        return std::any_of(m_ready.begin(), m_ready.end(), isReady) ? EPOLLIN : 0U;
    }
    void released() override
    {
        while (!m_items.empty())
            remove(*m_items.begin()->first);
    }

    int add(File& file, const epoll_event& event)
    {
        if (!m_items.emplace(&file, event).second)
            return -EEXIST;
        file.watchers.push_back(this);
        if (stateOf(file) != 0)
            notice(file, 0);
        return 0;
    }
    int remove(File& file)
    {
        if (m_items.erase(&file) == 0)
            return -ENOENT;
        m_ready.erase(std::remove(m_ready.begin(), m_ready.end(), &file), m_ready.end());
        file.watchers.erase(std::find(file.watchers.begin(), file.watchers.end(), this));
        return 0;
    }
    void notice(File& file, unsigned int events)
    {
        const bool bWanted = events == 0 || (events & wantedOf(file)) != 0;
        if (bWanted && std::find(m_ready.begin(), m_ready.end(), &file) == m_ready.end())
            m_ready.push_back(&file);
    }
    int wait(epoll_event* events, int most)
    {
        int count = 0;
        for (std::size_t left = m_ready.size(); left > 0 && count < most; --left) {
            File& file = *m_ready.front();
            m_ready.pop_front();
            const unsigned int state = stateOf(file);
            if (state == 0)
                continue;
            events[count] = m_items.at(&file);
            events[count++].events = state;
            if ((m_items.at(&file).events & EPOLLET) == 0)
                notice(file, 0);
        }
        return count;
    }

private:
    unsigned int wantedOf(File& file) const { return m_items.at(&file).events | EPOLLERR | EPOLLHUP; }
    unsigned int stateOf(File& file) const { return file.poll() & wantedOf(file); }

    std::map<File*, epoll_event> m_items;
    std::deque<File*> m_ready;
};

class EventFd : public File
{
public:
    unsigned int poll() override { return EPOLLOUT | (m_nCount > 0 ? EPOLLIN : 0U); }
    long write(const std::uint64_t* value)
    {
        m_nCount += *value;
        wake(EPOLLIN);
        return sizeof *value;
    }
    long read(std::uint64_t* value)
    {
        *value = std::exchange(m_nCount, 0U);
        wake(EPOLLOUT);
        return *value > 0 ? static_cast<long>(sizeof *value) : -EAGAIN;
    }

private:
    std::uint64_t m_nCount = 0;
};
} // namespace sim
