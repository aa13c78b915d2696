// A JPEG picture as RTP payloads (RFC 2435, type 1: 4:2:0, the quantisation tables in the first payload).
#pragma once

#include <QtCore/QByteArray>

#include <vector>

// Empty for a picture that the format cannot carry.
std::vector<QByteArray> jpegPayloads(const QByteArray& jpeg, int maxSize);
