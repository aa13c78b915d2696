// The descriptors of this process.
#pragma once

namespace Descriptors
{
// Standard input, output and error that the caller has closed are taken by what fails, so that no socket
// comes to stand in their place and receives what is printed.
void holdStandardOnes();
// A recorder of many cameras needs more than the usual 1024.
void raiseLimit();
} // namespace Descriptors
