// What the tool writes. Whether standard output took it is known at the end, and after each flush().
#pragma once

#include <QtCore/QString>

namespace Output
{
// To standard output. False once anything could not be written.
[[gnu::format(printf, 1, 2)]] bool print(const char* format, ...);
bool write(const QByteArray& bytes);
bool flush();
// Closes standard output. What a finished program returns: Exit::kWrite in place of success when anything
// could not be written, which a sentence on standard error tells.
int finish(int code);

// "nuvika: " and the sentence, a line on standard error.
void complain(const QString& sentence);

// A stranger's text for a line on a terminal, as UTF-8: control characters, and those that turn the direction
// of writing, stand as \x1b or \u202e.
QByteArray shown(const QString& text);
} // namespace Output
