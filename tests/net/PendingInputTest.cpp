#include "net/PendingInput_p.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using namespace Nuvika;

namespace
{
// Notes what it reads; `step` is a handler that it calls out to for each byte.
class Reader final : public InputReader
{
public:
    PendingInput input{*this};
    std::string read;
    std::vector<const char*> places;
    std::vector<bool> stalls;
    std::function<bool(char)> step = [](char) { return true; }; // false: the session is over
    bool bStop = false; // hold() was said: nothing further is read now

    int readInput(const char* data, int size) override
    {
        places.push_back(data);
        for (int i = 0; i < size; ++i) {
            if (bStop)
                return i;
            const char c = data[i];
            read += c;
            if (!step(c))
                return kOver;
        }
        return size;
    }
    void readEnd(int code) override { read += "<end " + std::to_string(code) + ">"; }
    void stallSource(bool bStall) override { stalls.push_back(bStall); }
    void hold()
    {
        bStop = true;
        input.hold();
    }
    void release()
    {
        bStop = false;
        input.release();
    }
};
} // namespace

TEST(PendingInput, HeldBytesAndTheEndBehindThemWaitForTheRelease)
{
    Reader reader;
    reader.step = [&](char c) {
        if (c == '.')
            reader.hold();
        if (c == 'c') {
            EXPECT_FALSE(reader.input.hasMore()) << "the rest of what is being read is not behind it";
            reader.input.received("e", 1);
            EXPECT_TRUE(reader.input.hasMore());
        }
        return true;
    };
    reader.input.received("a.b.cd", 6);
    reader.release();
    reader.release();
    EXPECT_EQ(reader.read, "a.b.cde");
    reader.input.received("f.g", 3);
    reader.input.received("h", 1);
    reader.input.ended(10054);
    EXPECT_TRUE(reader.input.hasEnded());
    EXPECT_EQ(reader.read, "a.b.cdef.");
    reader.release();
    EXPECT_EQ(reader.read, "a.b.cdef.gh<end 10054>");
    EXPECT_TRUE(reader.input.isEmpty());
}

TEST(PendingInput, ReadsWaitingBytesWhereTheyLieHoweverOftenItIsHeld)
{
    Reader reader;
    reader.hold();
    const std::string bytes(1000, 'x');
    reader.input.received(bytes.data(), int(bytes.size()));
    reader.step = [&](char) {
        reader.hold();
        return true;
    };
    for (std::size_t i = 0; i < bytes.size(); ++i)
        reader.release();
    ASSERT_EQ(reader.read, bytes);
    for (std::size_t i = 0; i < reader.places.size(); ++i)
        ASSERT_EQ(reader.places[i], reader.places[0] + i) << "copied again at byte " << i;
}

TEST(PendingInput, ABacklogStallsTheSourceUntilItIsRead)
{
    Reader reader;
    reader.hold();
    const std::string most(PendingInput::kMaxWaiting, 'x');
    reader.input.received(most.data(), int(most.size()));
    EXPECT_TRUE(reader.stalls.empty());
    reader.input.received("y", 1);
    EXPECT_EQ(reader.stalls, std::vector<bool>({true}));
    reader.input.setStalled(PendingInput::eByOwner, true);
    reader.release();
    EXPECT_EQ(reader.stalls.size(), 1U) << "the owner has stalled it, too";
    reader.input.setStalled(PendingInput::eByOwner, false);
    EXPECT_EQ(reader.stalls, std::vector<bool>({true, false}));
}

TEST(PendingInput, AResetForgetsWhatWaitsAndItsStallButNotTheOwners)
{
    const std::string much(PendingInput::kMaxWaiting + 1, 'x');
    for (const bool bOwner : {false, true}) {
        Reader reader;
        reader.step = [&](char c) {
            if (c != 'a')
                return true;
            reader.input.setStalled(PendingInput::eByOwner, bOwner);
            reader.input.received(much.data(), int(much.size()));
            reader.input.ended(1);
            reader.input.reset();
            reader.input.received("new", 3); // of the next session, while the handler still runs
            return false;
        };
        reader.input.received("abc", 3);
        EXPECT_EQ(reader.read, "anew");
        EXPECT_EQ(reader.stalls, bOwner ? std::vector<bool>({true}) : std::vector<bool>({true, false}));
    }
}
