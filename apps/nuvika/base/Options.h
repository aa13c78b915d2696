// What the commands share in reading their options.
#pragma once

#include <QtCore/QStringList>

#include <optional>

class QCommandLineParser;
struct Target;

// How many arguments stand beside the options.
struct Arguments {
    int least;
    int most;
    const char* takes; // a sentence's end: "one URL"
};

// Reads the line of a command. What the program ends with at once, if so: help was asked for and given, or a
// mistake was told.
std::optional<int> readOptions(
    QCommandLineParser& parser, const char* command, const QStringList& line, const Arguments& arguments);

// A number of an option within bounds; -1 with a message otherwise.
int numberOf(const QCommandLineParser& parser, const char* name, int fallback, int least, int most);
// Seconds with a fraction, as milliseconds; otherwise the same.
int millisecondsOf(const QCommandLineParser& parser, const char* name, int fallback);

void addTlsOptions(QCommandLineParser& parser);
// False with a message when a named file cannot be read.
bool checkTlsOptions(const QCommandLineParser& parser);
void applyTlsOptions(const QCommandLineParser& parser, Target* target);
