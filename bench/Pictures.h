// What the programs of the MJPEG rows share: the parts, the count, and the ideal parser that stands behind
// every peer without one of its own.
//   near_mjpeg_PEER watch PORT PICTURES CAMERAS: watches CAMERAS streams, timed when each camera has shown
//   some pictures on average.
#pragma once

#include "Common.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <sys/uio.h>

namespace bench
{
constexpr std::size_t kPictureSize = 40000;
constexpr long long kWarmUp = 5; // pictures of each camera
constexpr char kPicturesHead[] = "HTTP/1.1 200 OK\r\nServer: far\r\nDate: Sat, 21 Nov 2026 00:00:00 GMT\r\n"
                                 "Content-Type: multipart/x-mixed-replace; boundary=b\r\n\r\n";
constexpr char kPicturesRequest[] = "GET /pictures HTTP/1.1\r\nHost: far\r\n\r\n";

inline std::string picturePart()
{
    return "--b\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(kPictureSize)
        + "\r\n\r\n\xFF\xD8" + std::string(kPictureSize - 4, 'x') + "\xFF\xD9\r\n";
}

// Looks whether it is a whole picture; with the last one it reports and ends the program.
inline void countPicture(const Arguments& a, const char* data, std::size_t size)
{
    static long long seen = 0;
    if (size != kPictureSize || std::memcmp(data, "\xFF\xD8", 2) != 0
        || std::memcmp(data + size - 2, "\xFF\xD9", 2) != 0)
        std::exit(1);
    if (++seen == kWarmUp * a.connections)
        watch.start();
    if (seen == kWarmUp * a.connections + a.amount) {
        watch.report();
        std::_Exit(0);
    }
}

// Finds the pictures of one camera in what was received. Whole ones are seen where they lie; one that comes
// in pieces gets memory, of which all cameras together need as many as are in pieces at the same time.
class PartReader
{
public:
    explicit PartReader(const Arguments& arguments) : m_arguments(arguments) { }

    // Where the rest of a picture in pieces may be received; empty when there is none.
    iovec rest() const { return {m_pPicture.get() + m_have, m_size - m_have}; }
    void restReceived(std::size_t size)
    {
        m_have += size;
        if (m_size == 0 || m_have < m_size)
            return;
        countPicture(m_arguments, m_pPicture.get(), m_size);
        spare().push_back(std::move(m_pPicture));
        m_have = m_size = 0;
    }

    void feed(const char* data, std::size_t size)
    {
        if (m_size != 0) {
            const std::size_t piece = std::min(size, m_size - m_have);
            std::memcpy(m_pPicture.get() + m_have, data, piece);
            restReceived(piece);
            data += piece;
            size -= piece;
        }
        while (size > 0 && m_size == 0) {
            const std::size_t head = takeHead(data, size);
            data += head;
            size -= head;
            const std::size_t length = std::min(m_length, size);
            if (length == m_length && length > 0)
                countPicture(m_arguments, data, length);
            else if (m_length > 0)
                collect(data, length);
            data += length;
            size -= length;
            m_length = 0;
        }
    }

private:
    static std::vector<std::unique_ptr<char[]>>& spare()
    {
        static std::vector<std::unique_ptr<char[]>> buffers;
        return buffers;
    }

    // How many of the bytes belong to a head; leaves its length field, 0 while it is not complete.
    std::size_t takeHead(const char* data, std::size_t size)
    {
        const char* start = data;
        std::size_t before = m_head.size();
        if (before > 0) {
            m_head.append(data, std::min<std::size_t>(size, 512));
            start = m_head.data();
        }
        const auto* end
            = static_cast<const char*>(memmem(start, before > 0 ? m_head.size() : size, "\r\n\r\n", 4));
        if (end == nullptr) {
            if (before == 0)
                m_head.assign(data, size);
            return before == 0 ? size : m_head.size() - before;
        }
        const auto whole = static_cast<std::size_t>(end + 4 - start);
        const auto* field = static_cast<const char*>(memmem(start, whole, "Content-Length: ", 16));
        m_length = field != nullptr ? static_cast<std::size_t>(std::atoll(field + 16)) : 0;
        m_head.clear();
        return whole - before;
    }

    void collect(const char* data, std::size_t size)
    {
        if (m_length > kPictureSize)
            std::exit(1);
        if (spare().empty())
            spare().push_back(std::unique_ptr<char[]>(new char[kPictureSize]));
        m_pPicture = std::move(spare().back());
        spare().pop_back();
        m_size = m_length;
        std::memcpy(m_pPicture.get(), data, size);
        m_have = size;
    }

    const Arguments& m_arguments;
    std::string m_head; // a head's beginning
    std::size_t m_length = 0; // of the content behind the head
    std::unique_ptr<char[]> m_pPicture;
    std::size_t m_size = 0; // of the picture in pieces; 0: there is none
    std::size_t m_have = 0;
};
} // namespace bench
