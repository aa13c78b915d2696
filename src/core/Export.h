/// \file
/// The export macro: the library hides every symbol but those that carry it.
#pragma once

#include <QtCore/qglobal.h>

#if defined(KEPNUVIKAUTIL_BUILD)
#define KEPNUVIKAUTIL_EXPORT Q_DECL_EXPORT
#else
#define KEPNUVIKAUTIL_EXPORT Q_DECL_IMPORT
#endif
