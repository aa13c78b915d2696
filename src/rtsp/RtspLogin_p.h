// Private: the credentials of a session: what goes with a request, and the answer to a challenge.
#pragma once

#include <KepNuvikaUtil/HttpAuthenticator.h>

#include "rtsp/RtspHead_p.h"

namespace Nuvika
{
class RtspLogin
{
public:
    void set(const QString& user, const QString& password);
    // Another server: forgets every challenge.
    void forgetChallenges() { set(QString(m_user), QString(m_password)); }
    bool isGiven() const { return !m_user.isEmpty(); }

    // Takes the challenges of a 401. False when there is none that we can answer.
    bool challenged(const RtspHead& answer);
    // The value of the Authorization field; empty before a challenge.
    QByteArray credentials(const QByteArray& method, const QByteArray& url);

private:
    QString m_user;
    QString m_password;
    HttpAuthenticator m_authenticator;
    QByteArray m_challenge; // new: the authenticator has not taken it yet
    bool m_bBasic = false;
};
} // namespace Nuvika
