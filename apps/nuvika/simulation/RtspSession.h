// One viewer's session with a simulated camera (RFC 2326, appendix A.2): it has a source of its own. Over UDP
// it outlives its connection, and ends when nobody names it any more; interleaved, it ends with its
// connection.
#pragma once

#include "RtpSource.h"
#include "RtspTransport.h"
#include "RtspViewer.h"

class RtspSession
{
public:
    static constexpr int kTimeoutSeconds = 60;

    RtspSession(int stream, const RtspTransport& transport, RtspViewer& viewer, int lossPercent);

    // False: no ports were to be had.
    bool isValid() const { return m_source != nullptr; }
    const QString& id() const { return m_id; }
    int stream() const { return m_nStream; }
    // The Transport field of the answer.
    QString transport() const;
    const RtpSource& source() const { return *m_source; }

    // An interleaved one answers to its own connection only.
    bool isOf(const RtspViewer& viewer) const { return !m_transport.bInterleaved || m_viewer == &viewer; }
    bool isPlaying() const { return m_bPlaying; }
    void setPlaying(bool bPlaying) { m_bPlaying = bPlaying; }
    void sendPicture(const QByteArray& jpeg);

    void refresh() { m_sinceAsked.start(); }
    bool isOver() const;

private:
    std::unique_ptr<RtpSink> makeSink(RtspViewer& viewer);

    QString m_id;
    int m_nStream;
    RtspTransport m_transport;
    QPointer<RtspViewer> m_viewer; // of an interleaved one
    unsigned short m_nServerPort = 0;
    std::unique_ptr<RtpSource> m_source;
    bool m_bPlaying = false;
    QElapsedTimer m_sinceAsked;
};
