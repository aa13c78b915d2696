// Private: overlapped transfers for the sockets of one thread, under its Qt event loop.
//
//     Qt's dispatcher --(one QSocketNotifier)--> epoll descriptor --> the thread's sockets + one eventfd
//
// Where GLib drives the loop, the port's epoll_wait takes the place of its poll (linux/LoopWait_p.h).
//
// What the port promises:
// 1. A posted transfer completes exactly once, on the posting thread, only from inside that thread's event
//    loop, never inside the call that posted it.
// 2. Transfers of one direction complete in the order in which they were posted.
// 3. A send is tried at once; only its completion waits for the loop. A quiet one that left whole does not
// wake
//    the loop either: it completes with the next pass or before the loop sleeps, or once somebody wants to
//    know.
// 4. Cancelling completes what is outstanding with 995; until then the buffers belong to the port.
// 5. A completion may post, cancel, close or destroy any object, its own included; a nested event loop inside
//    a completion goes on serving everybody.
// 6. A pass serves every ready socket once before it serves one twice, and returns to Qt within a budget that
//    is looked at after every completion: no socket and no timer starves.
// 7. Closing a channel ends its connection at once; only the freeing waits for the loop. When a thread's port
//    ends, closed channels complete at once, so that nothing waits for a loop that will not run again.
// 8. Nothing is silent: the transfers of a channel that the port could not take, or of a port that could not
//    be opened, complete with the code. The next channel, and the next receive, try again.
// 9. Received bytes lie in memory of the port, which is there only until the handler returns, so that an idle
//    socket holds none. A receive on a stream names how much it takes; a handler may name memory of its own
//    for the first bytes.
// 10. A channel of datagrams receives a batch with one system call. Each datagram completes a receive of its
//    own, but the batch counts as one service; what is left of it, a nested event loop goes on with.
//
// One channel is served with one receive (and a send that its handler has just finished) at a time: a channel
// that has more work goes to the end of the line before its handler runs, so a nested loop finds it there.
#pragma once

#include "platform/Datagrams_p.h"
#include "platform/ReceiveMemory_p.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <sys/uio.h>

class QObject;

namespace Nuvika
{
class Channel;
class CompletionPort;
class PassBudget;

// One receive or send. Belongs to the poster, who keeps it in place while it is busy.
class Transfer
{
public:
    bool isBusy() const { return m_bBusy; }
    // The outcome, from the completion on.
    int error() const { return m_nError; }
    int bytes() const { return static_cast<int>(m_nBytes); }
    // Of a receive on a stream, during its completion: how many of its bytes lie in the handler's target, and
    // where the rest lies.
    int bytesInTarget() const { return static_cast<int>(m_nInTarget); }
    const char* rest() const { return m_pRest; }

private:
    friend class SendTransfer;
    friend class Channel;
    friend class TransferQueue;

    void begin(std::size_t size);
    void finish(int nError)
    {
        m_nError = nError;
        m_bDone = true;
    }

    Transfer* m_pNext = nullptr;
    std::size_t m_nBytes = 0;
    std::size_t m_nLeft = 0;
    std::size_t m_nInTarget = 0;
    const char* m_pRest = nullptr;
    int m_nError = 0;
    bool m_bBusy = false;
    bool m_bDone = false;
};

class SendTransfer : public Transfer
{
public:
    // What to send, set before the post. The ranges, which the port changes, and the bytes stay in place
    // until everything has left: of several transfers, only the first that has not is looked at.
    iovec* pRanges = nullptr;
    int nRanges = 0;
    bool bQuiet = false; // nobody waits to hear of it

private:
    friend class Channel;

    void advance(std::size_t bytes);

    int m_nFirstRange = 0;
};

// A receive on a channel of datagrams, posted without a buffer.
class DatagramReceive : public Transfer
{
public:
    // What it completed with, until the handler returns.
    const DatagramBatch::Datagram& datagram() const { return m_datagram; }

private:
    friend class Channel;
    DatagramBatch::Datagram m_datagram{};
};

class TransferHandler
{
public:
    // The transfer is no longer busy. Returns false when the channel that reports was destroyed meanwhile.
    virtual bool receiveCompleted(Transfer& transfer) = 0;
    virtual bool sendCompleted(Transfer& transfer) = 0;
    // Right before a stream is read: where its next bytes are wanted, or an empty range for anywhere.
    virtual iovec receiveTarget() { return {}; }

protected:
    ~TransferHandler() = default;
};

class TransferQueue
{
public:
    bool isEmpty() const { return m_pFirst == nullptr; }
    Transfer* first() const { return m_pFirst; }
    bool firstIsDone() const { return m_pFirst != nullptr && m_pFirst->m_bDone; }
    bool lastIsDone() const { return m_pFirst == nullptr || m_pLast->m_bDone; }
    void append(Transfer& transfer);
    Transfer* takeFirst();
    void finishAll(int nError);

private:
    Transfer* m_pFirst = nullptr;
    Transfer* m_pLast = nullptr;
};

// One socket in its thread's port: a connected stream, or one that receives datagrams. The descriptor stays
// the caller's, who closes it after close().
class Channel
{
public:
    enum Kind { eStream, eDatagrams };

    Channel(int socket, TransferHandler& handler, Kind kind = eStream);
    ~Channel(); // nothing may be busy
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // On a stream; ReceiveMemory::kSize bytes at most. On a channel of datagrams every receive is a
    // DatagramReceive, and the size is nothing.
    void postReceive(Transfer& transfer, std::size_t size);
    // Completes the receives that are still waiting with 995, and drops what is left of a batch.
    void cancelReceives();
    // Returns the bytes that left at once; the rest follows as the socket takes it.
    std::size_t postSend(SendTransfer& transfer);
    // A send that was posted has bytes left: a further one would only wait behind it.
    bool isSendBlocked() const { return !m_sends.lastIsDone(); }
    // Somebody waits for the quiet sends now.
    void wakeForSends();
    // Cancels what is outstanding and leaves the port: the descriptor may be closed right after.
    void close();

private:
    friend class CompletionPort;

    bool hasWork() const;
    void ready(unsigned int events);
    bool serveOne(PassBudget& budget); // false: this channel is gone
    bool serveBatch(PassBudget& budget);
    void completeQuietSends();
    Transfer* nextReceive(ReceiveMemory::Lease& memory);
    bool receiveSome(Transfer& transfer, ReceiveMemory::Lease& memory);
    void receiveBatch();
    Transfer* nextDatagram();
    Transfer* nextSend();
    bool trySend(SendTransfer& transfer);
    void schedule();
    void enterPort();
    void leavePort();

    std::shared_ptr<CompletionPort> m_pPort;
    TransferHandler& m_handler;
    TransferQueue m_receives;
    TransferQueue m_sends;
    std::shared_ptr<DatagramBatch> m_pBatch; // while something of it is left
    Channel* m_pPrevious = nullptr; // neighbours in the port's line of channels with work
    Channel* m_pNext = nullptr;
    int m_nSocket;
    int m_nAddError = 0; // the port could not take it: what every transfer completes with
    int m_nSendError = 0;
    const Kind m_kind;
    static constexpr std::size_t kNotQuiet = ~std::size_t{0};
    std::size_t m_nQuiet = kNotQuiet; // its place among the port's quiet channels
    bool m_bInLine = false;
    bool m_bReadable = false;
    bool m_bWritable = true;
    // The peer has ended or sent an urgent byte, or the socket failed: read on until the system says so.
    bool m_bReadOn = false;
    bool m_bSendsFirst = false;
};

class CompletionPort : public std::enable_shared_from_this<CompletionPort>
{
public:
    // The calling thread's port, made on first use.
    static std::shared_ptr<CompletionPort> current();

    CompletionPort();
    ~CompletionPort();
    CompletionPort(const CompletionPort&) = delete;
    CompletionPort& operator=(const CompletionPort&) = delete;

private:
    friend class Channel;
    class Notifier;
    class LoopWait;
    struct ThreadSlot;

    static void endCurrent();
    void attachToLoop();
    int open();
    void closeDescriptors();
    int add(Channel& channel, int socket);
    void remove(int socket);
    void schedule(Channel& channel);
    static void completeIfClosed(Channel& channel);
    void appendToLine(Channel& channel);
    void noteQuiet(Channel& channel);
    void forgetQuiet(Channel& channel);
    void completeQuietSends();
    void takeOutOfLine(Channel& channel);
    Channel* takeFirstInLine();
    void wakeBeforePoll();
    void passWithoutDescriptors();
    int fetch(int timeoutMs);
    void pass();
    std::shared_ptr<DatagramBatch> takeBatch();
    void serveRound(std::size_t channels, PassBudget& budget);
    void end();

    int m_nEpoll = -1;
    int m_nWake = -1;
    bool m_bArmed = false;
    bool m_bFetched = false; // all that the kernel announces is in line
    bool m_bLoopWoken = false; // by another thread
    bool m_bEnded = false;
    Channel* m_pFirst = nullptr;
    Channel* m_pLast = nullptr;
    std::size_t m_nInLine = 0;
    ReceiveMemory m_receiveMemory;
    std::vector<Channel*> m_quiet; // have finished sends of which nobody waits to hear
    std::unique_ptr<Notifier> m_pNotifier;
    std::unique_ptr<QObject> m_pPassLater; // while such a pass is due
    // For each depth of delivery one, some kept for reuse; those in use have another owner besides.
    std::vector<std::shared_ptr<DatagramBatch>> m_batches;
};
} // namespace Nuvika
