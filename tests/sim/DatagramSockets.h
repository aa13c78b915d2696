// UDP: datagrams that get lost, come twice and overtake each other, runs of them (UDP_SEGMENT, UDP_GRO), and
// groups.
#pragma once

#include "sim/Kernel.h"

#include <set>

namespace sim
{
// One datagram, or several of one size in a row, of which the last may be shorter.
struct Run {
    Address from;
    std::string bytes;
    std::size_t nSegment = 0; // 0: one datagram

    std::vector<std::string> datagrams() const;
};

class DatagramSocket : public Socket
{
public:
    explicit DatagramSocket(int family);

    unsigned int poll() override;
    void released() override; // what is on its way finds nobody
    int bind(const Address& address) override;
    long send(const msghdr& message, int flags) override; // a run's size stands in a control record
    long receive(msghdr* message, int flags) override;
    int setOption(int level, int name, const void* value, socklen_t size) override;

    // What a peer without a descriptor does.
    void transmit(const Address& to, Run run);
    int join(const Address& group);
    std::function<void(const Run&)> onRun; // in place of a queue

private:
    bool hears(const Address& to) const;
    void arrive(const Run& run);
    void deliver(const Address& to, const Run& run, Time due);
    bool appendToRun(const Run& run);
    void tellRoom();

    bool m_bReuse = false;
    bool m_bAllGroups = true;
    bool m_bRuns = false;
    std::set<Address> m_groups;
    std::deque<Run> m_received;
    std::size_t m_nQueued = 0;
    std::size_t m_nOnWire = 0;
    Time m_nLastDue = 0; // datagrams keep their order unless the weather says so
};
} // namespace sim
