// Text of strangers: password strings, command lines, definitions.
#include <KepNuvikaUtil/CommandParsing.h>
#include <KepNuvikaUtil/StrHlp.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    StrHlp::fromHex(text);
    if (StrHlp::fromHexAll(text).size() > text.size())
        std::abort();
    deEscapeString(escapeString(text, getDefaultSeparatorChars()));
    deEscapeString(text);
    QString command;
    QMap<QString, QVariant> params;
    parseCommand(text, command, params);
    parseDefinition(text, params, true);
    QStringList parts;
    parseSubStrings(text, &parts, getDefaultSeparatorChars(), true, true);
    return 0;
}
