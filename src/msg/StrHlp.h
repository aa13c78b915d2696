#pragma once

#include <KepNuvikaUtil/Export.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringRef>

/// Passwords and other sensitive texts as marked hex strings, and such strings inside longer texts.
///
///     FFB0B80B | length of the whole in characters | size of the token | token        as hexadecimal digits
///
/// The token is the text's UTF-8, encrypted under a key that is the same in every copy of the library, with a
/// random IV: the same text never looks the same twice. It keeps a password from a casual reader of a file or
/// a wire, and from nobody who has this library.
///
/// Comparisons with the marker ignore letter case.
/// Threads: any.
class KEPNUVIKAUTIL_EXPORT StrHlp : public QObject
{
    Q_OBJECT
public:
    /// What goes into a command line is escaped first: see CommandParsing.h. Empty for an empty text; 24
    /// characters around nothing, behind a record, when encryption fails.
    static QString toHex(const QString& text);
    /// The text of a marked hex string. What has no marker, or gives an empty text, comes back unchanged;
    /// what is marked and damaged, a character among the digits included, gives an empty string, behind a
    /// warning. What stands behind the token is ignored.
    static QString fromHex(const QString& s);
    static QString fromHex(const QStringRef& s);
    /// Replaces every marked hex string in the text. What cannot be read stays as it is, behind a warning. A
    /// replacement that again makes a marked string is replaced, too. Time is linear in the text, whatever it
    /// holds.
    static QString fromHexAll(const QString& s);
    /// The text starts with the marker.
    static bool hasMk(const QString& s);
    static bool hasMk(const QStringRef& s);
    static bool containsMk(const QString& s);
    /// The place of the next marker at or behind \a from; -1 for none.
    static int indexOfMk(const QString& s, int from);
    /// How many characters the marked string at the start says it has; 0 when there is none.
    static int getLength(const QStringRef& s);
    static int getLength(const QString& s, int from);
};
