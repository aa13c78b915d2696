// Private: reading WWW-Authenticate values as servers and cameras really send them.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QPair>

namespace Nuvika
{
// The key=value pairs behind a scheme word; keys in lower case, values without quotes and escapes.
QList<QPair<QByteArray, QByteArray>> parseChallengeParameters(const QByteArray& text);

// Begins with "digest" as a word of its own, in any case, behind blanks. Gives the offset behind the word.
bool isDigestChallenge(const QByteArray& challenge, int* parametersAt);

// The challenge of a 401 that can be answered best: Digest with MD5 or MD5-sess, Digest without an algorithm,
// another Digest, and else the first. One field may hold several challenges.
QByteArray chooseChallenge(const QList<QByteArray>& fieldValues);
} // namespace Nuvika
