// What the programs of the RTSP rows share. Each opens SESSIONS sessions with the far side, one after the
// other, and counts what comes until the far side says that it was all.
//   near_rtsp_PEER tcp|udp PORT PACKETS SESSIONS         what it cost
//   near_rtsp_PEER idletcp|idleudp PORT 0 SESSIONS       what each but the first added to the memory
#pragma once

#include "Idle.h"
#include "RtpStreams.h"

#include <atomic>
#include <memory>
#include <thread>

namespace bench
{
// The packets of one session; written by one thread.
struct alignas(64) RtspPackets {
    std::atomic<long long> received{0};
};

class RtspRow
{
public:
    explicit RtspRow(const Arguments& a)
        : m_count(a.connections), m_bIdle(a.mode.rfind("idle", 0) == 0), m_packets(a.connections + 1)
    {
        m_end = rawConnect(a.port);
        writeAll(m_end, "WAIT\r\n\r\n", 8);
    }
    // Idle rows have one more: the first one's memory is the library's own.
    int sessions() const { return m_bIdle ? m_count + 1 : m_count; }
    // That many are playing now. True: open another one.
    bool playing(int sessions)
    {
        if (m_bIdle && sessions == 1)
            m_before = residentKiB();
        if (sessions < this->sessions())
            return true;
        if (m_bIdle)
            reportIdle(m_before, m_count);
        std::thread([this] { waitForEnd(); }).detach();
        return false;
    }
    void took(int session)
    {
        if (!m_bStarted.load(std::memory_order_relaxed) && !m_bStarted.exchange(true)) // once
            watch.start();
        auto& received = m_packets[static_cast<std::size_t>(session)].received;
        received.store(received.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

private:
    long long received() const
    {
        long long all = 0;
        for (const RtspPackets& each : m_packets)
            all += each.received;
        return all;
    }
    // What still waits in the system is counted, too.
    [[noreturn]] void waitForEnd()
    {
        char byte = 0;
        while (recv(m_end, &byte, 1, 0) > 0) { }
        long long before = -1;
        for (long long now = received(); now != before; now = received()) {
            before = now;
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        watch.report(before);
        std::_Exit(0);
    }

    int m_count;
    bool m_bIdle;
    std::vector<RtspPackets> m_packets;
    std::atomic<bool> m_bStarted{false};
    int m_end; // closed by the far side
    double m_before = 0;
};

inline bool isUdp(const Arguments& a) { return a.mode.find("udp") != std::string::npos; }

inline std::string rtspUrl(const Arguments& a)
{
    return "rtsp://" + std::string(farHost()) + ":" + std::to_string(a.port) + "/live";
}
} // namespace bench
