// The configuration file of nuvika watch: a camera in each line, as a definition.
//   name=Gate;url=http://192.0.2.17/live;user=viewer;password=ffb0b80b...
//   name=Yard;url=rtsp://192.0.2.18/stream1;transport=tcp
// A value that holds semicolons or blanks at its ends stands in quotes. Empty lines and those that begin with
// # say nothing. Passwords stand as marked hex strings.
#pragma once

#include "base/Target.h"

#include <vector>

struct ConfiguredCamera {
    QString name;
    Target target;
};

// An exit code; a sentence that names the line and the reason where it is not Exit::kOk.
int readWatchConfig(const QString& file, std::vector<ConfiguredCamera>* cameras, QString* problem);
