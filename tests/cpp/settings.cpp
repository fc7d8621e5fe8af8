// The whole of kp.hpp without GoogleTest, to be compiled with the settings that an application may
// have: standards, without exceptions, with std::expected. Prints "done" when all is as it should
// be.
#include <kp.hpp>

#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;

namespace {

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            (void)std::printf("line %d: %s\n", __LINE__, #condition);                              \
            std::exit(1);                                                                          \
        }                                                                                          \
    } while (false)

struct Position {
    double x;
    double y;
};

template <class T> T taken(kp::Result<T> &&made)
{
    CHECK(made.has_value());
    return *std::move(made);
}

void use_values(kp::Node &node)
{
    auto number = taken(kp::Provider<double>::open(node, "settings/number"));
    auto reader = taken(kp::Consumer<double>::open(node, "settings/number"));
    auto wrong = taken(kp::Consumer<std::int32_t>::open(node, "settings/number"));
    CHECK(number.write(2.5, 7, std::chrono::system_clock::now()));
    const auto now = reader.read();
    CHECK(now && now->value == 2.5 && now->quality == 7 && !now->good());
    CHECK(reader.read_plain()->value == 2.5);
    CHECK(wrong.read().error().message() == "settings/number is double, not int32");

    auto text = taken(kp::Provider<std::string_view>::open(node, "settings/text", {100, 5}));
    auto texts = taken(kp::Consumer<std::string>::open(node, "settings/text"));
    CHECK(texts.read().error().reason == kp::Reason::no_value);
    CHECK(text.write("hello") && texts.read()->value == "hello");
    CHECK(text.write("").error().reason == kp::Reason::empty_value);

    auto place = taken(kp::Provider<Position>::open(node, "settings/place"));
    auto places = taken(kp::Consumer<Position>::open(node, "settings/place"));
    CHECK(place.write({1, 2}) && places.read()->value.y == 2);

#if defined(__cpp_lib_span)
    auto bytes = taken(kp::Provider<std::span<const std::byte>>::open(node, "settings/bytes"));
    auto views = taken(kp::Consumer<std::span<const std::byte>>::open(node, "settings/bytes"));
    const std::array<std::byte, 3> three{std::byte{1}, std::byte{2}, std::byte{3}};
    CHECK(bytes.write(three) && views.read()->value.size() == 3);
#endif
}

void use_changes(kp::Node &source, kp::Node &sink)
{
    auto level = taken(kp::Provider<int>::open(source, "settings/level"));
    CHECK(sink.subscribe("settings/+"));
    for (int value = 1; value < 1000; ++value) {
        CHECK(level.write(value) && source.notify());
        for (kp::Change change : sink.changes(10ms))
            if (change.topic() == "settings/level") {
                CHECK(change.as<int>() && *change.as<int>() == value);
                CHECK(sink.unsubscribe("settings/+"));
                return;
            }
    }
    CHECK(false); // no change came
}

#if KP_HPP_HAS_COROUTINES

struct Task {
    struct promise_type {
        Task get_return_object()
        {
            return {};
        }
        std::suspend_never initial_suspend() noexcept
        {
            return {};
        }
        std::suspend_never final_suspend() noexcept
        {
            return {};
        }
        void return_void()
        {
        }
        void unhandled_exception()
        {
            std::abort();
        }
    };
};

std::coroutine_handle<> waiting;
int awaited = 0;

Task await_changes(kp::Node &node)
{
    while (awaited < 2)
        for (kp::Change change : co_await node.next([](int fd, std::coroutine_handle<> handle) {
                 CHECK(fd >= 0);
                 waiting = handle;
             }))
            awaited += change.topic() == "settings/awaited";
}

void use_coroutines(kp::Node &source, kp::Node &sink)
{
    auto level = taken(kp::Provider<int>::open(source, "settings/awaited"));
    CHECK(sink.subscribe("settings/awaited"));
    for (kp::Change change : sink.take())
        CHECK(change.topic() != "settings/awaited");
    (void)await_changes(sink);
    // A notice before the connection is taken up is lost, so the writes go on.
    for (int value = 1; awaited < 2; ++value) {
        CHECK(value < 1000 && waiting && level.write(value) && source.notify());
        if (sink.wait(20ms))
            std::exchange(waiting, nullptr).resume();
    }
}

#endif

} // namespace

int main()
{
    auto source = taken(kp::Node::open("settings-source"));
    auto sink = taken(kp::Node::open("settings-sink"));
    CHECK(!kp::Node::open("no/such/directory"));
    use_values(source);
    use_changes(source, sink);
#if KP_HPP_HAS_COROUTINES
    use_coroutines(source, sink);
#endif
#if KP_HPP_HAS_EXCEPTIONS
    kp::Node thrown{"settings-throwing"};
    auto provider = thrown.provide<int>("settings/thrown");
    bool caught = false;
    try {
        (void)thrown.provide<int>("");
    } catch (const kp::Failure &failure) {
        caught = failure.error().reason == kp::Reason::system;
    }
    CHECK(caught && provider.write(1));
#endif
    (void)std::puts("done");
}
