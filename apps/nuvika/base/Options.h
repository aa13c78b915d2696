// What the commands share in reading their options.
#pragma once

class QCommandLineParser;
struct Target;

// A number of an option within bounds; -1 with a message otherwise.
int numberOf(const QCommandLineParser& parser, const char* name, int fallback, int least, int most);

void addTlsOptions(QCommandLineParser& parser);
// False with a message when a named file cannot be read.
bool checkTlsOptions(const QCommandLineParser& parser);
void applyTlsOptions(const QCommandLineParser& parser, Target* target);
