#include <KepNuvikaUtil/Buffer.h>
#include <KepNuvikaUtil/SharedPoolBuffer.h>

#include "core/Shown_p.h"
#include "support/Values.h"

#include <gtest/gtest.h>

TEST(Values, TextsLoseWhatMayBeAPassword)
{
    const struct {
        const char* text;
        const char* shown;
    } rows[]
        = {{"", ""}, {"two words ", "two words "}, {"trackID=1", "trackID=1"}, {"e=mail@host", "e=mail@host"},
            {"Digest realm=\"a b\", nonce=\"c\"", "Digest realm=\"a b\", nonce=\"c\""},
            {"rtsp://host/track=1", "rtsp://host/track=1"}, {"rtsp://u:p@host/x", "rtsp://...@host/x"},
            {"rtsp://u:/p?@:@host/x", "rtsp://...@host/x"}, // whatever the password is made of
            {"see <http://u:p@h/>, http://u@i/", "see <http://...@h/>, http://...@i/"},
            {"/image.cgi?user=u&x=p next", "/image.cgi?... next"},
            {"/user=u&password=p&channel=1", "/user=u&password=..."}, {"/u_PassWd=p_1", "/u_PassWd=..."},
            {"http://h/a;pwd=p;b=1", "http://h/a;pwd=..."}, {"==", "=="}};
    for (const auto& row : rows)
        EXPECT_EQ(Nuvika::withoutSecrets(QString::fromLatin1(row.text)).toStdString(), row.shown);
}

TEST(Values, BuffersPrintTheirSizes)
{
    static_assert(moveFreely<VariableBuffer, SharedPoolBuffer>(), "buffers move");
    VariableBuffer buffer;
    buffer.setData("secret", 6);
    EXPECT_EQ(shown(buffer), "VariableBuffer(bytes 6)");
    EXPECT_EQ(shown(KepNuvikaUtil::BUFFER{"abc", 3}), "BUFFER(bytes 3)");
    EXPECT_EQ(shown(SharedPoolBuffer()), "SharedPoolBuffer(none)");
    QString text;
    QDebug(&text).noquote() << Qt::hex << 255 << buffer << 254 << QStringLiteral("x");
    EXPECT_EQ(text.trimmed().toStdString(), "ff VariableBuffer(bytes 6) fe x")
        << "the stream's settings come back";
}
