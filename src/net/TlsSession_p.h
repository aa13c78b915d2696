// Private: one TLS connection over memory: received bytes in, bytes to send out, no socket and no signal.
#pragma once

#include <KepNuvikaUtil/Buffer.h>

#include "net/TlsContext_p.h"
#include "net/TlsFailure_p.h"
#include "net/TlsPeerCheck_p.h"

namespace Nuvika
{
// Takes what is to be sent; called from inside the session's members.
class TlsOutput
{
public:
    virtual void sendEncrypted(const char* data, int size) = 0;

protected:
    ~TlsOutput() = default;
};

class TlsSession
{
public:
    enum Result {
        eMore, // the buffer is full
        eWantInput,
        eClosed, // the peer's close_notify
        eFailed, // failure() tells why; an alert has left
        eWantVerdict // on peerCheck(), before the handshake goes on
    };

    // Host and port of the server, which a client verifies and resumes by; empty on the server's side. Null
    // with the reason. A client that asks for a verdict does so in each connection: it resumes no session,
    // and leaves none to others.
    static std::unique_ptr<TlsSession> create(std::shared_ptr<TlsContext> context, TlsOutput& output,
        const QString& host, quint16 port, QString* problem, bool bAsk = false);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    // Received bytes, read in place until the next call.
    void setInput(const char* data, int size);
    bool hasInput() const { return m_nInput > 0 || SSL_has_pending(m_pSsl.get()) == 1; }

    // eMore: the handshake has finished.
    Result handshake();
    bool isOpen() const { return SSL_is_init_finished(m_pSsl.get()) == 1; }
    // Fills the buffer as far as whole records allow; what is in it counts whatever the result.
    Result read(char* buffer, int size, int* got);
    // False when the connection cannot send any more: after endWriting(), or failure() tells why.
    bool write(const KepNuvikaUtil::BUFFER* ranges, int count);
    bool write(const char* data, int size)
    {
        const KepNuvikaUtil::BUFFER range{data, size};
        return write(&range, 1);
    }
    // Sends close_notify; the other direction stays open.
    void endWriting();
    // What was written, or the end, waits until the peer goes on with a message or a handshake that it has
    // begun within the connection.
    bool isWaiting() const { return !m_waiting.isEmpty() || m_bEndWaits; }
    int waitingBytes() const { return m_waiting.size(); }
    // To be called after a read, which may have been the step. False as write().
    bool writeWaiting();

    const TlsFailure& failure() const { return m_failure; }
    CertificatePointer peerCertificate() const;
    TlsPeerCheck& peerCheck() { return m_check; }
    bool isResumed() const { return SSL_session_reused(m_pSsl.get()) == 1; }
    const char* protocol() const { return SSL_get_version(m_pSsl.get()); }
    const char* cipher() const { return SSL_get_cipher_name(m_pSsl.get()); }

    static int newSession(SSL* ssl, SSL_SESSION* session); // of SSL_CTX_sess_set_new_cb
    static int lookAtPeer(X509_STORE_CTX* store, void* nothing); // of SSL_CTX_set_cert_verify_callback
    static BioMethodPointer makeBioMethod(); // null when it cannot be made

private:
    TlsSession(std::shared_ptr<TlsContext> context, TlsOutput& output);
    static int bioRead(BIO* bio, char* buffer, int size);
    static int bioWrite(BIO* bio, const char* data, int size);
    static long bioControl(BIO* bio, int command, long number, void* pointer);
    static TlsSession& of(X509_STORE_CTX* store);
    static int verified(int bGood, X509_STORE_CTX* store);
    bool setUp(bool bAsk);
    bool setUpClient(const QString& host, quint16 port, bool bAsk);
    bool expectHost(const QByteArray& name, bool bAddress);
    Result resultOf(int code);
    void releaseBuffers();
    bool writeRange(const char* data, int size);
    bool writeSome(const char* data, int size, int* written);
    void flush();

    std::shared_ptr<TlsContext> m_pContext;
    TlsOutput& m_output;
    std::string m_peer; // "host:port"
    std::unique_ptr<SSL, OpenSslFree<SSL_free>> m_pSsl;
    const char* m_pInput = nullptr;
    int m_nInput = 0;
    // When the peer was: in the handshake that has finished, or before, in that of the session which we
    // resume.
    std::uint64_t m_nVerifiedNs = 0;
    bool m_bVerified = false;
    QByteArray m_waiting; // plain text
    bool m_bEndWaits = false;
    TlsFailure m_failure;
    TlsPeerCheck m_check;
};
} // namespace Nuvika
