/// \file
/// Command lines, `command:key=value;key="\"va;lue\""`, and their parts. Double quotes and backslashes
/// protect special characters; marked hex strings (StrHlp) stand for the passwords in them.
///
/// A line is split three times, at its colon, at semicolons and at equals signs, and each split decodes what
/// is marked and takes one level of quotes and backslashes away. So a value that others have chosen, a
/// password above all, goes through escapeString(value, ":;=") three times before it stands in a command
/// line, twice before it stands in a definition, and before toHex() makes a marked string of it:
///
///     const auto guarded = [](const QString& s) { return escapeString(s, QStringLiteral(":;=")); };
///     line = "login:user=viewer;password=" + StrHlp::toHex(guarded(guarded(guarded(password))));
///
/// Without that, the password `x;role=admin` sets a parameter `role`. White space at its ends is lost,
/// whatever protects it.
///
/// None of these functions fails: an unterminated quote or a trailing backslash just ends the text. Time is
/// linear in the text. Threads: any.
#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVariant>

/// Double quote, CR, LF, TAB, backslash.
KEPNUVIKAUTIL_EXPORT QString getDefaultEscapeChars();
/// TAB, VT, FF, blank, NUL.
KEPNUVIKAUTIL_EXPORT QString getDefaultSeparatorChars();
/// TAB, LF, VT, FF, CR, blank, NUL.
KEPNUVIKAUTIL_EXPORT QString getWhitespaceChars();

/// Adds the tokens of \a text to \a out. Runs of separators count as one; a token loses the white space at
/// its ends, quoted or not; two adjacent quotes make an empty one.
/// \a bStrip: quotes and backslashes go, and \\n, \\r, \\t become what they mean; otherwise they stay as
/// written. \a bDecodeMarked: marked hex strings are replaced by their texts first.
KEPNUVIKAUTIL_EXPORT void parseSubStrings(
    const QString& text, QStringList* out, const QString& separators, bool bStrip, bool bDecodeMarked);

/// Puts a backslash before the default escape characters and those of \a extraChars; CR, LF and TAB become
/// letters.
KEPNUVIKAUTIL_EXPORT QString escapeString(const QString& text, const QString& extraChars);
/// The reverse, for one value. White space at its ends goes, and marked hex strings are decoded.
KEPNUVIKAUTIL_EXPORT QString deEscapeString(const QString& text);

/// Splits `command:parameters`; without a colon all of it is parameters. Keys are in lower case, but for
/// those without a value, which have an invalid QVariant. Of equal keys the last counts. Always true.
KEPNUVIKAUTIL_EXPORT bool parseCommand(
    const QString& text, QString& command, QMap<QString, QVariant>& params);
/// Parameters without a command; keys keep their case. Always true.
KEPNUVIKAUTIL_EXPORT bool parseDefinition(
    const QString& text, QMap<QString, QVariant>& params, bool bDecodeMarked);
