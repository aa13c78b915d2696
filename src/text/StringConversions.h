/// \file
/// Conversions between Qt's strings and wide standard strings, and plain decimal numbers. All of them hold no
/// state and may be called from any thread.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <string>
#include <vector>

/// The UTF-16 code units of \a s, one to one: a character outside the basic plane gives two units.
KEPNUVIKAUTIL_EXPORT std::wstring QStringToStd(const QString& s);

/// Replaces \a out by the conversion of each element, in order.
KEPNUVIKAUTIL_EXPORT void QStringListToStd(const QStringList& list, std::vector<std::wstring>* out);

/// \a size units at \a s; -1 reads up to the terminating zero. A unit above 0xFFFF becomes a surrogate pair;
/// a null pointer gives an empty string.
KEPNUVIKAUTIL_EXPORT QString QStringFromWChar(const wchar_t* s, int size);

/// A decimal number with an optional leading "-": digits only, of any script, wrapping at 32 bits. Anything
/// else gives 0 and false in \a ok, which may be null. No digit at all is 0 and true.
KEPNUVIKAUTIL_EXPORT int QStringRefToInt32(const QStringRef& ref, bool* ok);

/// The same without a sign.
KEPNUVIKAUTIL_EXPORT unsigned int QStringRefToUInt32(const QStringRef& ref, bool* ok);
