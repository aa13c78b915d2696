// The simulated kernel: descriptors, what they stand for, and what fails. Calls return 0, a count or a
// descriptor, or an errno below 0.
#pragma once

#include "sim/Address.h"
#include "sim/Report.h"
#include "sim/Scheduler.h"
#include "sim/Weather.h"

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

namespace sim
{
class Epoll;

// What a descriptor stands for.
class File
{
public:
    File() = default;
    virtual ~File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    virtual unsigned int poll() = 0; // EPOLLIN and its kin, as they are now
    virtual void released() { } // the descriptor was closed
    // Something has happened: 0 stands for everything.
    void wake(unsigned int events = 0);

    bool bNonBlocking = false;
    std::vector<Epoll*> watchers;
    std::function<void()> onWake; // of a peer that has no descriptor
};

class Socket : public File
{
public:
    explicit Socket(int family) { local.nFamily = family; }

    virtual int bind(const Address& address) = 0;
    virtual long send(const msghdr& message, int flags) = 0; // never waits, nor does
    virtual long receive(msghdr* message, int flags) = 0;
    virtual int setOption(int level, int name, const void* value, socklen_t size);
    virtual int option(int level, int name, void* value, socklen_t* size);

    Address local;

protected:
    std::size_t m_nReceiveLimit = 131072;
    std::size_t m_nSendLimit = 65536;
    bool m_bNoSpace = false; // somebody was refused room, and is told when there is some
};

class Kernel
{
public:
    static constexpr int kFirstDescriptor = 100000; // far above real ones

    static Kernel& get();

    Weather weather;
    Random& random() { return Scheduler::get().random(); }
    bool chance(double probability) { return probability > 0 && random().chance(probability); }
    Time delay() { return random().between(weather.nMinDelayUs, weather.nMaxDelayUs) * 1000; }

    static bool isOurs(int fd) { return fd >= kFirstDescriptor; }
    // A system call begins: time passes, what is due happens, another thread may go on.
    void enter(const char* call);
    // One of those errors, below 0, or 0.
    int fault(double probability, const std::vector<int>& errors);
    int faultOf(const char* call); // as the table says

    // Lives until the run ends: whoever still waits for it, or is on the way to it, finds it.
    template <class Kind, class... Arguments>
    Kind& make(Arguments&&... arguments)
    {
        const auto made = std::make_shared<Kind>(std::forward<Arguments>(arguments)...);
        m_made.push_back(made);
        return *made;
    }
    bool hasRoom() const { return static_cast<int>(m_files.size()) < weather.nDescriptors; }
    int open(File& file); // the lowest that is free
    void close(int fd);
    // Using a descriptor that is not open, or is another's, is a fault of the library, and ends the run.
    template <class Kind = File>
    Kind& file(int fd, const char* call)
    {
        const auto found = m_files.find(fd);
        auto* file = found == m_files.end() ? nullptr : dynamic_cast<Kind*>(found->second);
        if (file == nullptr)
            fail("%s(%d): no such descriptor is open", call, fd);
        return *file;
    }
    std::size_t openDescriptors() const { return m_files.size(); }
    std::string describeOpen() const;

    // Names that the resolver knows.
    std::map<std::string, std::vector<std::string>> names;
    bool bPolledEndlessly = false; // by the last poll(): no timer runs

private:
    std::map<int, File*> m_files;
    std::deque<std::shared_ptr<void>> m_made;
    std::uint64_t m_nCalls = 0;
};

// Of one range.
struct Message : msghdr {
    Message(const void* data, std::size_t size) : msghdr{}, range{const_cast<void*>(data), size}
    {
        msg_iov = &range;
        msg_iovlen = 1;
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    iovec range;
};

std::size_t sizeOf(const msghdr& message);
std::string gather(const msghdr& message, std::size_t size);
// As many of the bytes as there is room for.
std::size_t scatter(std::string_view bytes, const msghdr& message);
} // namespace sim
