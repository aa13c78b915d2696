// What the page asks for each second.
#pragma once

#include <QtCore/QByteArray>

class Recorder;

QByteArray stateJson(const Recorder& recorder);
