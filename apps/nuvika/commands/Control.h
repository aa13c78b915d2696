// nuvika status and nuvika send: ask a recorder at its command port.
#pragma once

#include <QtCore/QStringList>

int runStatus(const QStringList& arguments);
int runSend(const QStringList& arguments);
