#include "Exit.h"

#include <array>

namespace
{
struct Meaning {
    int code;
    const char* sentence;
};
constexpr std::array<Meaning, 13> kMeanings{{
    {Exit::kOk, "Done; every camera and every stream that was asked for has delivered."},
    {Exit::kFailure, "Not done, or a camera or stream delivered nothing: the message says why."},
    {Exit::kUsage, "The command line or the configuration file is wrong."},
    {Exit::kNoHost, "The host is unknown."},
    {Exit::kNoConnection, "There is no connection to the host."},
    {Exit::kHttpError, "The server answered with an error status."},
    {Exit::kWrite, "Output, or a picture to be saved, could not be written."},
    {Exit::kRead, "A file or standard input could not be read."},
    {Exit::kTimeout, "No answer, or no TLS handshake, came in time."},
    {Exit::kTls, "TLS failed."},
    {Exit::kLost, "The connection was lost, or the answer could not be understood."},
    {Exit::kCertificate, "A certificate was refused."},
    {Exit::kLoginDenied, "The user or the password was refused."},
}};
} // namespace

QByteArray Exit::table()
{
    QByteArray lines;
    for (const Meaning& meaning : kMeanings)
        lines += QByteArray::number(meaning.code).rightJustified(4) + "  " + meaning.sentence + '\n';
    return lines;
}
