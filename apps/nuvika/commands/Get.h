// nuvika get: one request, its answer on standard output.
#pragma once

#include <QtCore/QStringList>

int runGet(const QStringList& arguments);
