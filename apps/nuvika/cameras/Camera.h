// One camera of the recorder, however it is reached. It is tried for ever, with growing pauses between
// attempts.
#pragma once

#include "BackOff.h"
#include "Periods.h"
#include "base/Target.h"

#include <KepNuvikaUtil/NTPTimestamp.h>

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <memory>
#include <vector>

class StreamRecord;

class Camera : public QObject
{
    Q_OBJECT
public:
    static constexpr int kHistorySeconds = 180;

    struct Sample {
        double pictures; // in that second
        double bytes;
    };

    // By the scheme of its address.
    static std::unique_ptr<Camera> create(const QString& name, const Target& target);

    void start() { open(); }
    // Once a second: closes the current sample, and looks whether the camera has fallen silent.
    void tick();
    // Counts what is not counted yet, before the last figures are shown.
    virtual void finish() { }

    const QString& name() const { return m_name; }
    QString address() const { return m_target.shown(); }
    const QString& state() const { return m_state; }
    bool isReceiving() const { return m_bReceiving; }
    quint64 pictures() const { return m_nPictures; }
    // Pictures, or what the camera has in their place.
    bool hasDelivered() const { return !m_recorded.all().empty(); }
    quint64 bytes() const { return m_nBytes; }
    int interruptions() const { return m_nInterruptions; }
    // Empty for what browsers show no picture of; format() tells what that is.
    const QByteArray& lastPicture() const { return m_picture; }
    virtual QString format() const { return QString(); }
    // The RTP stream that it is received by; null without one.
    virtual const StreamRecord* stream() const { return nullptr; }
    // Periods without a silence, by this host's clock.
    const Periods<NTPTimestamp>& recorded() const { return m_recorded; }
    const std::vector<Sample>& history() const { return m_history; } // oldest first
    Sample current() const { return m_history.empty() ? Sample{0, 0} : m_history.back(); }

signals:
    void picture(const QByteArray& bytes);

protected:
    Camera(QString name, Target target);

    // Begins an attempt.
    virtual void open() = 0;
    virtual void lookAtSilence() = 0;
    // Between two attempts.
    bool isPausing() const { return m_retry.isActive(); }

    const Target& target() const { return m_target; }
    void setState(const QString& state) { m_state = state; }
    // It came from the camera; a picture beside it counts by the next.
    void count(qint64 bytes, const QString& state);
    void countPicture();
    // Sound, or data: it came, and is no picture.
    void countOther();
    void show(const QByteArray& picture);
    // It sends what is of no use.
    void complain(const QString& state);
    // The attempt has ended: another one follows.
    void interrupted(const QString& why);
    void openAgain(int ms) { m_retry.start(ms); }
    QString loginProblem() const;

private:
    QString m_name;
    Target m_target;
    QString m_state = QStringLiteral("connecting");
    bool m_bReceiving = false;
    quint64 m_nPictures = 0;
    quint64 m_nBytes = 0;
    int m_nInterruptions = 0;
    Sample m_sample{0, 0};
    std::vector<Sample> m_history;
    QByteArray m_picture;
    Periods<NTPTimestamp> m_recorded;
    BackOff m_backOff;
    QTimer m_retry;
};
