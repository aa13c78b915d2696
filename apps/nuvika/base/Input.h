// What the tool reads.
#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

// A whole file, or standard input for "-". False with a sentence, also for what has more bytes than `most`.
bool readInput(const QString& name, qint64 most, QByteArray* bytes, QString* problem);
