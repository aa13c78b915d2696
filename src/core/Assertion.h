/// \file
/// Reporting of failed assertions. Both may be called from any thread.
#pragma once

#include <KepNuvikaUtil/Export.h>

/// Writes one critical record `ASSERT: "expression" in file F, line N` and returns: an internal assertion
/// that fails never stops the library.
KEPNUVIKAUTIL_EXPORT void nuvikaAssertPrint(const char* expression, const char* file, int line);

/// For applications: writes the same record (cut to 1023 characters), then breaks into an attached debugger
/// and returns when that resumes, or ends the process when there is none. The library never calls it.
KEPNUVIKAUTIL_EXPORT void nuvikaAssertStop(const char* expression, const char* file, int line);
