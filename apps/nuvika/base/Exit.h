// Exit codes, curl's where curl has one.
#pragma once

#include <QtCore/QByteArray>

namespace Exit
{
constexpr int kOk = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr int kNoHost = 6;
constexpr int kNoConnection = 7;
constexpr int kHttpError = 22;
constexpr int kWrite = 23;
constexpr int kRead = 26;
constexpr int kTimeout = 28;
constexpr int kTls = 35;
constexpr int kLost = 56;
constexpr int kCertificate = 60;
constexpr int kLoginDenied = 67;

// A line for each code, as the help shows them.
QByteArray table();
} // namespace Exit
