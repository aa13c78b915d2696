// One camera of the recorder: fetches its pictures by HTTP, plain or over TLS, for ever, with growing pauses
// between attempts.
#pragma once

#include "Periods.h"
#include "base/Target.h"

#include <KepNuvikaUtil/NTPTimestamp.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <vector>

class CameraStream : public QObject
{
    Q_OBJECT
public:
    static constexpr int kHistorySeconds = 180;

    struct Sample {
        double pictures; // in that second
        double bytes;
    };

    CameraStream(const QString& name, const Target& target);

    void start();
    // Once a second: closes the current sample, and looks whether the camera has fallen silent.
    void tick();

    const QString& name() const { return m_name; }
    QString address() const { return m_target.shown(); }
    const QString& state() const { return m_state; }
    bool isReceiving() const { return m_bReceiving; }
    quint64 pictures() const { return m_nPictures; }
    quint64 bytes() const { return m_nBytes; }
    int interruptions() const { return m_nInterruptions; }
    const QByteArray& lastPicture() const { return m_picture; }
    // Periods without a silence, by this host's clock.
    const Periods<NTPTimestamp>& recorded() const { return m_recorded; }
    const std::vector<Sample>& history() const { return m_history; } // oldest first
    Sample current() const { return m_history.empty() ? Sample{0, 0} : m_history.back(); }

signals:
    void picture(const QByteArray& bytes);

private:
    void request();
    // False for what is no picture.
    bool takePicture(const char* data, int size);
    void takePart(const QByteArray& type, const char* data, int size);
    void takeAnswer(int status, const QByteArray& type, const char* data, int size);
    QString whyFailed() const;
    void interrupted(const QString& why);

    QString m_name;
    Target m_target;
    std::unique_ptr<HttpsClient> m_client;
    QString m_state = QStringLiteral("connecting");
    bool m_bReceiving = false;
    int m_nError = 0;
    quint64 m_nPictures = 0;
    quint64 m_nBytes = 0;
    int m_nInterruptions = 0;
    int m_nPauseMs = 0;
    Sample m_sample{0, 0};
    std::vector<Sample> m_history;
    QByteArray m_picture;
    Periods<NTPTimestamp> m_recorded;
    QElapsedTimer m_silence;
    QTimer m_retry;
};
