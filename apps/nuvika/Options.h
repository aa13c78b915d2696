// What the commands share in reading their options.
#pragma once

class QCommandLineParser;

// A number of an option within bounds; -1 with a message otherwise.
int numberOf(const QCommandLineParser& parser, const char* name, int fallback, int least, int most);
