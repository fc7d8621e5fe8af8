// The stream of a client, without a socket: what the client is given, in which order, and how much
// is still to be given.
#include "store/stream.h"

#include "common/store/fault_guard.h"
#include "testing/store_provider.h"

#include <gtest/gtest.h>

using kp::web::Board;
using kp::web::Stream;
using kptest::bytes_of;
using kptest::StoreProvider;

namespace {

constexpr uint64_t kAtOnce = 1; // microseconds between rounds

class StreamTest : public testing::Test {
  protected:
    StreamTest()
    {
        kp::tool::catch_bus_errors();
    }

    static kp::tool::Selection selection(const std::string &pattern)
    {
        kp::tool::Selection result;
        kp::tool::Problem none;
        (void)result.set({pattern}, {}, none);
        return result;
    }

    // Gives all that a stream has to give now.
    static std::string all_of(Stream &stream)
    {
        std::string text;
        std::array<char, 100> room;
        while (const std::size_t got = stream.read(room))
            text.append(room.data(), got);
        return text;
    }

    static std::size_t count(const std::string &text, const std::string &what)
    {
        std::size_t found = 0;
        for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + 1))
            ++found;
        return found;
    }

    static std::string last_id(const std::string &text)
    {
        const std::size_t at = text.rfind("id: ") + 4;
        return text.substr(at, text.find('\n', at) - at);
    }

    Board board_{selection("#"), {"/run/no-dictionary", false}};
};

TEST_F(StreamTest, GivesTheValuesThereAreAndThenTheChangesOnly)
{
    StoreProvider first("plant/first", KP_TYPE_INT32);
    StoreProvider second("plant/second", KP_TYPE_INT32);
    first.write(bytes_of<int32_t>(1), 1000);
    second.write(bytes_of<int32_t>(2), 1000);
    board_.look();
    Stream stream(board_, selection("plant/#"), kAtOnce, "");

    const std::string at_first = all_of(stream);
    second.write(bytes_of<int32_t>(3), 2000);
    board_.look();
    const std::string later = all_of(stream);

    EXPECT_EQ(count(at_first, "\"topic\":"), 2U) << at_first;
    EXPECT_EQ(count(at_first, "event: current\n"), 1U);
    EXPECT_EQ(count(later, "\"topic\":"), 1U) << later;
    EXPECT_NE(later.find("\"value\":3"), later.npos);
}

TEST_F(StreamTest, GivesOnlyTheNewestOfManyValues)
{
    StoreProvider tag("plant/tag", KP_TYPE_INT32);
    tag.write(bytes_of<int32_t>(0), 1000);
    board_.look();
    Stream stream(board_, selection("#"), kAtOnce, "");
    (void)all_of(stream);

    for (int32_t value = 1; value <= 100; ++value) {
        tag.write(bytes_of(value), 1000 + static_cast<uint64_t>(value));
        board_.look();
    }
    const std::string later = all_of(stream);

    EXPECT_EQ(count(later, "\"topic\":"), 1U) << later;
    EXPECT_NE(later.find("\"value\":100"), later.npos);
}

TEST_F(StreamTest, TellsOfTopicsThatComeAndGo)
{
    board_.look();
    Stream stream(board_, selection("#"), kAtOnce, "");
    (void)all_of(stream);

    StoreProvider tag("plant/tag", KP_TYPE_INT32);
    tag.write(bytes_of<int32_t>(7), 1000);
    board_.look();
    const std::string came = all_of(stream);
    tag.leave();
    board_.look();
    const std::string went = all_of(stream);

    EXPECT_NE(came.find("\"value\":7"), came.npos) << came;
    EXPECT_NE(came.find("event: topics\n"), came.npos) << came;
    EXPECT_NE(went.find("event: gone\ndata: {\"topic\":\"plant/tag\"}\n"), went.npos) << went;
}

TEST_F(StreamTest, LeavesOutWhatTheSelectionDoesNotCover)
{
    StoreProvider wanted("plant/tag", KP_TYPE_INT32);
    StoreProvider other("other/tag", KP_TYPE_INT32);
    wanted.write(bytes_of<int32_t>(1), 1000);
    other.write(bytes_of<int32_t>(1), 1000);
    board_.look();
    Stream stream(board_, selection("plant/+"), kAtOnce, "");

    const std::string text = all_of(stream);

    EXPECT_EQ(count(text, "\"topic\":"), 1U) << text;
    EXPECT_NE(text.find("plant/tag"), text.npos);
}

TEST_F(StreamTest, GoesOnWhereABrokenConnectionWas)
{
    StoreProvider first("plant/first", KP_TYPE_INT32);
    StoreProvider second("plant/second", KP_TYPE_INT32);
    first.write(bytes_of<int32_t>(1), 1000);
    second.write(bytes_of<int32_t>(2), 1000);
    board_.look();
    std::string id;
    {
        Stream broken(board_, selection("#"), kAtOnce, "");
        id = last_id(all_of(broken));
    }
    first.write(bytes_of<int32_t>(5), 2000);
    board_.look();
    Stream stream(board_, selection("#"), kAtOnce, id);

    const std::string text = all_of(stream);

    EXPECT_EQ(count(text, "\"topic\":"), 1U) << text;
    EXPECT_NE(text.find("\"value\":5"), text.npos);
    EXPECT_EQ(text.find("event: reset"), text.npos);
}

TEST_F(StreamTest, BeginsAnewWithAnIdThatItDoesNotKnow)
{
    StoreProvider tag("plant/tag", KP_TYPE_INT32);
    tag.write(bytes_of<int32_t>(1), 1000);
    board_.look();
    Stream stream(board_, selection("#"), kAtOnce, "1-1");

    const std::string text = all_of(stream);

    EXPECT_NE(text.find("event: reset\n"), text.npos) << text;
    EXPECT_EQ(count(text, "\"topic\":"), 1U) << text;
}

TEST_F(StreamTest, IsTheSameForTopicsThatAreRemadeManyTimes)
{
    Stream stream(board_, selection("#"), kAtOnce, "");
    (void)all_of(stream);

    for (uint64_t round = 1; round <= 1500; ++round) { // more than are remembered when gone
        StoreProvider tag("plant/t" + std::to_string(round), KP_TYPE_INT32);
        tag.write(bytes_of<int32_t>(1), round);
        board_.look();
        tag.leave();
        board_.look();
    }
    const std::string text = all_of(stream);

    EXPECT_NE(text.find("event: reset\n"), text.npos) << text.substr(0, 300);
    EXPECT_EQ(count(text, "\"value\":1,"), 0U);
    EXPECT_LE(board_.next_after(0)->id, 4096U);
}

TEST_F(StreamTest, WritesNoLineBreakOrOtherTextIntoTheStream)
{
    StoreProvider tag("plant/tag\ndata: x\n\n\x01", KP_TYPE_STRING);
    tag.write("one\r\n\r\nevent: evil\n\xff\xe2\x80\xa8<script>", 1000);
    board_.look();
    Stream stream(board_, selection("#"), kAtOnce, "");

    const std::string text = all_of(stream);

    EXPECT_EQ(text.find("event: evil\n"), text.npos) << text;
    EXPECT_EQ(text.find("\ndata: x\n"), text.npos) << text;
    EXPECT_EQ(text.find('\r'), text.npos);
    EXPECT_EQ(count(text, "\"value_b64\":"), 1U) << text;
}

} // namespace
