#include "sim/Epoll.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace sim
{
namespace
{
constexpr unsigned int kAlways = EPOLLERR | EPOLLHUP;
}

unsigned int Epoll::stateOf(const Item& item) const
{
    const std::shared_ptr<File> file = item.pFile.lock();
    return file ? file->poll() & (item.event.events | kAlways) : 0;
}

unsigned int Epoll::poll()
{
    for (File* file : m_ready) {
        if (stateOf(m_items.at(file)) != 0)
            return EPOLLIN;
    }
    return 0;
}

int Epoll::add(const std::shared_ptr<File>& file, const epoll_event& event)
{
    if (m_items.count(file.get()) != 0)
        return -EEXIST;
    const Item& item = m_items.emplace(file.get(), Item{file, event, false}).first->second;
    file->watchers.push_back(this);
    if (stateOf(item) != 0)
        notice(*file, 0);
    return 0;
}

int Epoll::remove(File& file)
{
    if (m_items.erase(&file) == 0)
        return -ENOENT;
    m_ready.erase(std::remove(m_ready.begin(), m_ready.end(), &file), m_ready.end());
    file.watchers.erase(std::find(file.watchers.begin(), file.watchers.end(), this));
    return 0;
}

void Epoll::released()
{
    while (!m_items.empty())
        remove(*m_items.begin()->first);
}

void Epoll::notice(File& file, unsigned int events)
{
    Item& item = m_items.at(&file);
    if (item.bReady || (events != 0 && (events & (item.event.events | kAlways)) == 0))
        return;
    item.bReady = true;
    m_ready.push_back(&file);
}

int Epoll::wait(epoll_event* events, int most)
{
    int count = 0;
    for (std::size_t left = m_ready.size(); left > 0 && count < most; --left) {
        File* file = m_ready.front();
        m_ready.pop_front();
        Item& item = m_items.at(file);
        item.bReady = false;
        const unsigned int state = stateOf(item);
        if (state == 0)
            continue;
        events[count] = item.event;
        events[count++].events = state;
        if ((item.event.events & EPOLLET) == 0)
            notice(*file, 0);
    }
    return count;
}

long EventFd::write(std::uint64_t value)
{
    m_nCount += value;
    wake(EPOLLIN);
    return sizeof value;
}

long EventFd::read(std::uint64_t* value)
{
    if (m_nCount == 0)
        return -EAGAIN;
    *value = std::exchange(m_nCount, 0U);
    wake(EPOLLOUT);
    return sizeof *value;
}
} // namespace sim
