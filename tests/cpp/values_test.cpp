// Values of every type through typed providers and consumers, and what goes wrong with them.
#include "testing/capture.h"
#include "testing/process.h"

#include <kp.hpp>

#include <atomic>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <sstream>

using namespace kptest;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

std::atomic<long> allocations = 0;

} // namespace

void *operator new(std::size_t size)
{
    ++allocations;
    if (void *memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    ++allocations;
    return std::malloc(size);
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

enum class Mode : std::uint8_t { off, slow, fast };

using Four = std::array<char, 4>;

struct Position {
    double x;
    double y;
    std::int32_t floor;
};

// A node that provides a topic and consumes it.
template <class T> struct Pair {
    kp::Node node{"pair"};
    kp::Provider<T> provider{node, "a/b"};
    kp::Consumer<T> consumer{node, "a/b"};

    T exchange(const T &value)
    {
        const auto written = provider.write(value);
        if (!written)
            throw std::runtime_error(written.error().message());
        return consumer.read().value().value;
    }
};

template <class T> void expect_exchange(kp::Type type, std::initializer_list<T> values)
{
    Pair<T> pair;
    std::uint32_t code = 99;
    ASSERT_EQ(kp_tag_get_value_info(pair.provider.native(), &code, nullptr, nullptr), 0);
    EXPECT_EQ(code, static_cast<std::uint32_t>(type));
    for (const T &value : values)
        EXPECT_EQ(pair.exchange(value), value);
}

TEST(CppValue, OfEachTypeComesAsItWasWritten)
{
    expect_exchange<bool>(kp::Type::boolean, {true, false});
    expect_exchange<std::int8_t>(kp::Type::int8, {-128, 127});
    expect_exchange<std::int16_t>(kp::Type::int16, {-32768, 5});
    expect_exchange<std::int32_t>(kp::Type::int32, {-5, 2147483647});
    expect_exchange<std::int64_t>(kp::Type::int64, {std::numeric_limits<std::int64_t>::min()});
    expect_exchange<std::uint8_t>(kp::Type::uint8, {255});
    expect_exchange<std::uint16_t>(kp::Type::uint16, {65535});
    expect_exchange<std::uint32_t>(kp::Type::uint32, {4000000000U});
    expect_exchange<std::uint64_t>(kp::Type::uint64, {~std::uint64_t{0}});
    expect_exchange<long long>(kp::Type::int64, {-1LL});
    expect_exchange<float>(kp::Type::float_, {1.5F});
    expect_exchange<double>(kp::Type::double_, {-0.1});
    expect_exchange<Mode>(kp::Type::uint8, {Mode::fast});
    expect_exchange<std::string>(kp::Type::string, {"x", std::string(4000, 'y'), "seven b"});
    expect_exchange<kp::Bytes>(kp::Type::bytearray, {kp::Bytes(4000, std::byte{7})});
}

TEST(CppValue, OfAStructureComesAsItWasWritten)
{
    Pair<Position> pair;

    const Position read = pair.exchange({1.5, -2.5, 3});

    EXPECT_EQ(read.x, 1.5);
    EXPECT_EQ(read.y, -2.5);
    EXPECT_EQ(read.floor, 3);
}

TEST(CppValue, OfAnyOtherByteThanZeroIsTrue)
{
    Pair<bool> pair;
    const std::uint8_t odd = 7;

    ASSERT_EQ(kp_tag_write(pair.node.native(), pair.provider.native(), &odd, 1), 1);

    EXPECT_TRUE(pair.consumer.read()->value);
    EXPECT_TRUE(pair.consumer.read_plain()->value);
}

TEST(CppValue, HasQualityAndTimes)
{
    Pair<double> pair;
    const auto source = std::chrono::system_clock::now() - 1h;
    const auto before = std::chrono::system_clock::now();

    ASSERT_TRUE(pair.provider.write(2.5, 77, source));

    for (const auto &now : {pair.consumer.read(), pair.consumer.read_plain()}) {
        ASSERT_TRUE(now);
        EXPECT_EQ(now->value, 2.5);
        EXPECT_EQ(now->quality, 77U);
        EXPECT_FALSE(now->good());
        EXPECT_EQ(now->source_time, std::chrono::floor<std::chrono::microseconds>(source));
        EXPECT_GE(now->timestamp, std::chrono::floor<std::chrono::microseconds>(before));
    }
}

TEST(CppValue, KeepsItsQualityWith255)
{
    Pair<int> pair;

    ASSERT_TRUE(pair.provider.write(1, 9));
    ASSERT_TRUE(pair.provider.write(2, KP_QUALITY_KEEP));

    EXPECT_EQ(pair.consumer.read()->quality, 9U);
    EXPECT_EQ(pair.consumer.read()->value, 2);
}

TEST(CppValue, OfQualityZeroCanBeRead)
{
    Pair<int> pair;

    ASSERT_TRUE(pair.provider.write(5, KP_QUALITY_NONE));

    EXPECT_EQ(pair.consumer.read()->value, 5);
    EXPECT_FALSE(pair.consumer.changed());
}

TEST(CppValue, AsAViewHoldsUntilTheNextRead)
{
    kp::Node node{"views"};
    kp::Provider<std::string_view> provider{node, "a"};
    kp::Consumer<std::string_view> consumer{node, "a"};
    ASSERT_TRUE(provider.write("first"));

    const auto first = consumer.read();
    kp::Consumer<std::string_view> moved = std::move(consumer);

    EXPECT_EQ(first->value, "first");
    ASSERT_TRUE(provider.write("second"));
    EXPECT_EQ(moved.read()->value, "second");
}

TEST(CppValue, OfFixedSizeOrAsAViewCostsNoAllocation)
{
    Pair<double> number;
    kp::Node node{"views"};
    kp::Provider<std::string_view> text{node, "text"};
    kp::Consumer<std::string_view> reader{node, "text"};
    kp::Provider<Position> place{node, "place"};
    kp::Consumer<Position> places{node, "place"};
    kp::Consumer<double> missing{node, "a/topic/that/nobody/has/declared/yet"};
    const long before = allocations;

    for (int i = 1; i < 100; ++i) {
        (void)number.provider.write(i, 1, std::chrono::system_clock::now());
        (void)number.consumer.read();
        (void)number.consumer.read_plain();
        (void)text.write("a text of more than a few bytes");
        (void)reader.read();
        (void)place.write({1, 2, 3});
        (void)places.read();
        (void)missing.read();
    }

    EXPECT_EQ(allocations, before);
}

TEST(CppError, OfAnotherTypeNamesBoth)
{
    kp::Node node{"types"};
    auto provider = node.provide<std::int32_t>("plant/valve");
    auto wrong = node.consume<double>("plant/valve");
    StderrCapture log;
    ASSERT_TRUE(provider.write(1));

    const auto read = wrong.read();

    ASSERT_FALSE(read);
    EXPECT_EQ(read.error().reason, kp::Reason::wrong_type);
    EXPECT_EQ(read.error().message(), "plant/valve is int32, not double");
    EXPECT_EQ(wrong.read_plain().error().message(), "plant/valve is int32, not double");
    EXPECT_EQ(log.text(), "");
}

TEST(CppError, OfATypeThatChangesIsSeenAtItsNextWrite)
{
    Pair<std::int32_t> pair;
    EXPECT_EQ(pair.exchange(5), 5);
    kp::Node other{"other"};
    auto anew = other.provide<float>("a/b"); // as large
    ASSERT_TRUE(anew.write(1.5F));

    EXPECT_EQ(pair.consumer.read().error().message(), "a/b is float, not int32");
    EXPECT_EQ(pair.consumer.read().error().message(), "a/b is float, not int32");

    auto again = other.provide<std::int32_t>("a/b");
    ASSERT_TRUE(again.write(6));
    EXPECT_EQ(pair.consumer.read()->value, 6);
}

// The library reads as many bytes as the topic's type has, which AddressSanitizer would see here.
TEST(CppError, OfAWriteToATopicThatBecameLargerReadsNothingBesideTheValue)
{
    kp::Node node{"owner"};
    kp::Node other{"other"};
    auto small = std::make_unique<kp::Provider<std::int8_t>>(node, "a");
    auto text = node.provide<std::string>("b");
    auto larger = other.provide<std::int64_t>("a");
    auto number = other.provide<double>("b");

    EXPECT_EQ(small->write(1).error().message(), "a is int64, not int8");
    EXPECT_EQ(text.write("x").error().message(), "b is double, not string");
}

TEST(CppError, TellsWhyThereIsNoValue)
{
    kp::Node node{"values"};
    auto nobody = node.consume<double>("a");
    auto text = node.provide<std::string>("b");
    auto texts = node.consume<std::string>("b");
    auto number = node.provide<int>("c");
    StderrCapture log;

    EXPECT_EQ(nobody.read().error().message(), "a is declared by no provider");
    EXPECT_EQ(texts.read().error().message(), "b has no value yet");
    EXPECT_EQ(node.consume<kp::Value>("a").read().error().message(),
              "a is declared by no provider");
    EXPECT_EQ(node.consume<kp::Value>("b").read().error().message(), "b has no value yet");
    EXPECT_EQ(node.consume<int>("c").read()->value, 0) << "a number that was declared only";
    EXPECT_EQ(log.text(), "");
}

TEST(CppError, OfSizesIsFoundBeforeTheLibraryIsCalled)
{
    kp::Node node{"sizes"};
    auto text = node.provide<std::string>("name", {.max_size = 10});
    StderrCapture log;

    EXPECT_EQ(text.write("").error().message(), "name: a value has at least one byte");
    EXPECT_EQ(text.write(std::string(11, 'x')).error().message(),
              "name: a value of 11 bytes, where 10 are declared");
    EXPECT_EQ(text.write(std::string(5000, 'x')).error().size, 5000U);
    EXPECT_TRUE(text.write(std::string(10, 'x')));
    EXPECT_EQ(log.text(), "");
}

TEST(CppError, OfAStructureOfAnotherSizeNamesBoth)
{
    kp::Node node{"sizes"};
    auto provider = node.provide<std::array<std::uint8_t, 20>>("blob");
    auto consumer = node.consume<Position>("blob");
    ASSERT_TRUE(provider.write({}));

    EXPECT_EQ(consumer.read().error().message(), "blob holds 20 bytes, not 24");
}

TEST(CppError, KeepsTheEndOfALongTopic)
{
    const std::string topic = std::string(200, 'a') + "/" + std::string(20, 'b');
    kp::Node node{"long"};

    const auto read = node.consume<int>(topic).read();

    EXPECT_THAT(read.error().message(), testing::StartsWith("...aaa"));
    EXPECT_THAT(read.error().message(),
                testing::EndsWith(std::string(20, 'b') + " is declared by no provider"));
}

TEST(CppError, OfTheSystemHoldsErrno)
{
    StderrCapture log;

    const auto node = kp::Node::open("no/such/directory");

    ASSERT_FALSE(node);
    EXPECT_EQ(node.error().reason, kp::Reason::system);
    EXPECT_EQ(node.error().system_error, EINVAL);
    EXPECT_EQ(node.error().message(), "no/such/directory: kp_new: Invalid argument");
    EXPECT_THROW(kp::Node("no/such/directory"), kp::Failure);
}

TEST(CppError, OfATopicThatIsNoneIsGivenByItsConstructor)
{
    kp::Node node{"topics"};
    StderrCapture log;

    for (const char *topic : {"", "a/#", "../a"}) {
        EXPECT_FALSE(kp::Provider<int>::open(node, topic)) << topic;
        EXPECT_FALSE(kp::Consumer<int>::open(node, topic)) << topic;
        EXPECT_THROW((void)node.provide<int>(topic), kp::Failure) << topic;
    }
    EXPECT_FALSE(kp::Consumer<int>::open(node, std::string("a\0b", 3)));
}

TEST(CppDynamicValue, HasEveryTypeAndPrints)
{
    std::ostringstream text;

    for (const kp::Value &value :
         {kp::Value(true), kp::Value(std::int8_t{-5}), kp::Value(std::uint8_t{200}),
          kp::Value(std::int64_t{1}), kp::Value(2.5), kp::Value("text"),
          kp::Value(kp::Bytes{std::byte{1}, std::byte{0xab}}),
          kp::Value(kp::Raw{{std::byte{0xff}}})})
        text << kp::name(value.type()) << '=' << value << ' ';

    EXPECT_EQ(text.str(), "boolean=true int8=-5 uint8=200 int64=1 double=2.5 string=text "
                          "bytearray=01ab raw=ff ");
}

TEST(CppDynamicValue, IsReadFromATopicOfAnyType)
{
    Pair<Position> place;
    kp::Consumer<kp::Value> any{place.node, "a/b"};
    ASSERT_TRUE(place.provider.write({1, 2, 3}));

    const auto read = any.read();

    ASSERT_TRUE(read);
    EXPECT_EQ(read->value.type(), kp::Type::raw);
    EXPECT_EQ(read->value.as<Position>()->floor, 3);
    EXPECT_EQ(read->value.as<double>().error().message(), "the value is raw, not double");
    EXPECT_EQ(read->value.as<Four>().error().message(), "the value holds 24 bytes, not 4");
    EXPECT_EQ(std::visit([](const auto &held) { return sizeof(held); }, read->value),
              sizeof(kp::Raw));
}

TEST(CppResult, HasTheInterfaceOfExpected)
{
    Pair<int> pair;
    EXPECT_EQ(pair.exchange(20), 20);
    kp::Consumer<float> wrong{pair.node, "a/b"};
    const auto value_of = [](const auto &sample) { return sample.value; };
    const auto half = [](int value) -> kp::Result<int> { return value / 2; };

    EXPECT_EQ(pair.consumer.read().transform(value_of).value(), 20);
    EXPECT_EQ(pair.consumer.read().transform(value_of).and_then(half).value_or(1), 10);
    EXPECT_EQ(wrong.read().transform(value_of).value_or(-1.5F), -1.5F);
    EXPECT_EQ(wrong.read()
                  .transform(value_of)
                  .or_else([](const kp::Error &) -> kp::Result<float> { return 7.0F; })
                  .value(),
              7.0F);
    EXPECT_TRUE(pair.provider.write(1).and_then([&] { return pair.node.notify(); }));
    EXPECT_THROW((void)wrong.read().value(), kp::BadResultAccess);
    EXPECT_NO_THROW(pair.provider.write(1).value());
}

} // namespace
