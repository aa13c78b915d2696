// Private: reading WWW-Authenticate values as servers and cameras really send them.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QPair>

namespace Nuvika
{
// The key=value pairs behind a scheme word; keys in lower case, values without quotes and escapes.
QList<QPair<QByteArray, QByteArray>> parseChallengeParameters(const QByteArray& text);

// No byte of it ends a line: parts of a challenge are sent back.
bool isLine(const QByteArray& challenge);

// Begins with "digest" as a word of its own, in any case, behind blanks. Gives the offset behind the word.
bool isDigestChallenge(const QByteArray& challenge, int* parametersAt);

// The one of a list that is taken: "auth" before "auth-int" before any other, in lower case.
QByteArray chooseQop(const QByteArray& list);
bool isSupportedQop(const QByteArray& qop);

// The challenge of a 401 that can be answered best: Digest with SHA-256, Digest with MD5 (either with or
// without -sess), Digest without an algorithm, Basic; in what order they stand does not matter, but among
// equals the first. Empty when there is none. One field may hold several challenges.
QByteArray chooseChallenge(const QList<QByteArray>& fieldValues);
} // namespace Nuvika
