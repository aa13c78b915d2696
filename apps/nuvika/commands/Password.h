// nuvika password: texts as marked hex strings, for configuration files, and back.
#pragma once

#include <QtCore/QStringList>

int runPassword(const QStringList& arguments);
