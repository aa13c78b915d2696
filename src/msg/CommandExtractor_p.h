// Private: cuts the received bytes of a message socket into frames.
//
//     "FDTC" | length | message          "GEUD" | length | encryption token          integers big-endian
//
// Frames are read where they were received; only one that comes in pieces is copied, once. So time is linear
// in the bytes, however many frames a receive holds.
#pragma once

#include <QtCore/QtEndian>
#include <QtCore/QtGlobal>

#include <cstdlib>
#include <memory>

class CommandExtractor
{
public:
    static constexpr quint32 kMagicUncrypted = 0x46445443; // "FDTC"
    static constexpr quint32 kMagicCrypted = 0x47455544; // "GEUD"
    static constexpr int kHeadSize = 8;

    struct FreeStorage {
        void operator()(char* p) const { std::free(p); }
    };
    using Storage = std::unique_ptr<char, FreeStorage>;

    struct Command {
        const char* pData;
        int nSize;
        bool bEncrypted;
    };

    // Further bytes of the stream, read where they are until getFirstCommand() says that there is no more:
    // only a frame that comes in pieces is copied. False, with nothing taken, when more would be held than a
    // peer may make us hold.
    bool feed(const char* data, int size);
    // The first frame's payload, which stays in place until removeFirstCommand(). A frame is seen only with a
    // byte behind its head. What is no frame discards everything, with a warning.
    bool getFirstCommand(Command* command)
    {
        if (m_nSize > 0 || lookAt(m_pFed, m_nFed, command) != eFrame)
            return joinFirstCommand(command);
        m_outstanding = eFed;
        m_nFirstCmdSize = command->nSize;
        return true;
    }
    void removeFirstCommand()
    {
        if (m_outstanding != eFed) {
            removeHeldCommand();
            return;
        }
        m_outstanding = eNone;
        m_pFed += m_nFirstCmdSize + kHeadSize;
        m_nFed -= m_nFirstCmdSize + kHeadSize;
    }
    // More came than may be held, or than there is memory for: the stream is lost.
    bool isOverfull() const { return m_bOverfull; }
    // Empty, without storage; the caller decides how long that lives on.
    Storage clear();

private:
    static constexpr int kMaxCapacity = 0xC800000; // 200 MiB
    static constexpr quint32 kMaxCommand = 0x6400000; // and above is refused
    static constexpr int kShrinkBelow = 0x800000;
    static constexpr int kShrunkCapacity = 0x1000000;

    enum Look { eFrame, eIncomplete, eWrongMagic, eWrongLength };
    enum Outstanding { eNone, eFed, eHeld }; // where the frame lies that has been handed out

    static Look lookAt(const char* data, int size, Command* command)
    {
        if (size <= kHeadSize)
            return eIncomplete;
        const auto magic = qFromBigEndian<quint32>(data);
        const auto length = qFromBigEndian<quint32>(data + 4);
        *command = {data + kHeadSize, static_cast<int>(length), magic == kMagicCrypted};
        if (magic != kMagicUncrypted && magic != kMagicCrypted)
            return eWrongMagic;
        if (length >= kMaxCommand)
            return eWrongLength;
        return static_cast<quint32>(size) < length + kHeadSize ? eIncomplete : eFrame;
    }
    bool joinFirstCommand(Command* command);
    void removeHeldCommand();
    bool append(const char* data, int size);
    bool completeFrame();
    bool reallocate(int capacity);
    void shrink();

    const char* m_pFed = nullptr; // behind what is held
    int m_nFed = 0;
    int m_nSize = 0; // bytes held: at most one frame, and what made it visible
    int m_nCapacity = 0;
    int m_nFirstCmdSize = 0;
    Storage m_pBuffer;
    Outstanding m_outstanding = eNone;
    bool m_bOverfull = false;
};
