#include "rtsp/RtspLogin_p.h"

#include "http/HttpChallenge_p.h"
#include "http/HttpCredentials_p.h"

#include <utility>

using namespace Nuvika;

void RtspLogin::set(const QString& user, const QString& password)
{
    m_user = user;
    m_password = password;
    m_authenticator.reset();
    m_challenge.clear();
    m_bBasic = false;
}

bool RtspLogin::challenged(const RtspHead& answer)
{
    QList<QByteArray> values;
    for (const QString& value : answer.allValues(QStringLiteral("WWW-Authenticate")))
        values.append(value.toLatin1());
    m_challenge = chooseChallenge(values);
    m_authenticator.reset();
    int parametersAt = 0;
    m_bBasic = !m_challenge.isEmpty() && !isDigestChallenge(m_challenge, &parametersAt);
    return isGiven() && !m_challenge.isEmpty();
}

QByteArray RtspLogin::credentials(const QByteArray& method, const QByteArray& url)
{
    if (m_bBasic) // cameras read UTF-8 there
        return HttpCredentials::basic(
            QString::fromLatin1(m_user.toUtf8()), QString::fromLatin1(m_password.toUtf8()));
    const QByteArray challenge = std::exchange(m_challenge, QByteArray());
    if (!challenge.isEmpty())
        return m_authenticator.digestResponse(challenge, method, url, m_user, m_password, QByteArray());
    if (m_authenticator.isNull())
        return QByteArray();
    return m_authenticator.nextDigestResponse(method, url, m_user, m_password, QByteArray());
}
