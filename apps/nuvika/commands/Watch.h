// nuvika demo and nuvika watch: the recorder on simulated or real cameras.
#pragma once

#include <QtCore/QStringList>

int runDemo(const QStringList& arguments);
int runWatch(const QStringList& arguments);
