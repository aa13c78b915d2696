// The simulated kernel: descriptors, what they stand for, and what fails.
#pragma once

#include "sim/Random.h"
#include "sim/Report.h"
#include "sim/Scheduler.h"
#include "sim/Weather.h"

#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

namespace sim
{
// Calls return 0, a count or a descriptor, or an errno below 0.
class Epoll;

// What a descriptor stands for.
class File : public std::enable_shared_from_this<File>
{
public:
    virtual ~File() = default;
    virtual unsigned int poll() = 0; // EPOLLIN and its kin, as they are now
    virtual void released() { } // the descriptor was closed
    // Something has happened: 0 stands for everything.
    void wake(unsigned int events = 0);

    bool bNonBlocking = false;
    std::vector<Epoll*> watchers;
    std::function<void()> onWake; // of a peer that has no descriptor
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
    int fault(double probability, std::initializer_list<int> errors);
    int interrupted() { return fault(weather.interrupt, {EINTR}); }
    int outOfMemory() { return fault(weather.noMemory, {ENOBUFS, ENOMEM}); }

    bool hasRoom() const { return static_cast<int>(m_files.size()) < weather.nDescriptors; }
    int open(const std::shared_ptr<File>& file); // the lowest that is free
    int close(int fd);
    // Using a descriptor that is not open is a fault of the library, and ends the run.
    std::shared_ptr<File> file(int fd, const char* call);
    template <class Kind>
    std::shared_ptr<Kind> fileOf(int fd, const char* call)
    {
        const auto found = std::dynamic_pointer_cast<Kind>(file(fd, call));
        if (!found)
            fail("%s(%d): not such a descriptor", call, fd);
        return found;
    }
    std::size_t openDescriptors() const { return m_files.size(); }
    std::string describeOpen() const;

    // Names that the resolver knows.
    std::map<std::string, std::vector<std::string>> names;
    bool bPolledEndlessly = false; // by the last poll(): no timer runs

private:
    std::map<int, std::shared_ptr<File>> m_files;
    std::uint64_t m_nCalls = 0;
};

// Bytes in order, cheap to take from the front.
class ByteQueue
{
public:
    std::size_t size() const { return m_bytes.size() - m_nTaken; }
    bool isEmpty() const { return size() == 0; }
    void append(const char* data, std::size_t size) { m_bytes.append(data, size); }
    void append(const iovec* ranges, std::size_t count, std::size_t size);
    std::size_t take(const iovec* ranges, std::size_t count, std::size_t size);
    std::string take(std::size_t size);
    void shorten(std::size_t size) { m_bytes.resize(m_nTaken + size); }
    void clear();
    const char* data() const { return m_bytes.data() + m_nTaken; }
    void drop(std::size_t size);

private:
    std::string m_bytes;
    std::size_t m_nTaken = 0;
};

std::size_t sizeOf(const iovec* ranges, std::size_t count);
} // namespace sim
