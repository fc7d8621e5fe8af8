/**
 * @file kp.hpp
 * Tags in C++: typed providers and consumers, changes on the application's own thread.
 *
 * One header over kp.h, C++17 and later, with or without exceptions and RTTI. Nothing more is to be
 * linked. docs/cpp.md shows it in use. It stays one file although it is long: users include it and
 * copy it as one, and its templates all need what stands above them. A line of dashes begins each
 * of its sections.
 *
 * Conventions:
 *  - Constructors throw kp::Failure. The static function `open` beside each of them gives a
 *    kp::Result instead, with and without exceptions. Everything else gives a Result, or cannot
 *    fail.
 *  - Owners (Node, Provider, Consumer, Change) are moved, not copied. They may be destroyed in any
 *    order: an owner that outlives its node answers every call with the error Reason::closed. So
 *    does one that was moved from.
 *  - A node, its providers and its consumers are used by one thread at a time. No code of the
 *    application runs on the library's threads.
 *  - Times are std::chrono time points of the system clock, in microseconds.
 *  - Reading and writing allocate nothing for types of fixed size, structures and views.
 */
#ifndef KP_HPP
#define KP_HPP

#include <kp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <iosfwd>
#include <memory>
#include <new>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "kp.hpp needs C++17 or later; kp.h serves C and older C++"
#endif

#if defined(__has_include)
#if __has_include(<version>)
#include <version>
#endif
#endif

#if defined(__cpp_lib_span)
#include <span>
#endif
#if defined(__cpp_lib_coroutine) && defined(__cpp_impl_coroutine)
#include <coroutine>
#define KP_HPP_HAS_COROUTINES 1
#else
#define KP_HPP_HAS_COROUTINES 0
#endif
#if defined(__cpp_exceptions)
#define KP_HPP_HAS_EXCEPTIONS 1
#include <stdexcept>
#else
#define KP_HPP_HAS_EXCEPTIONS 0
#endif

/**
 * 1 when kp::Result is std::expected, which it is where that has and_then() and transform(). May be
 * defined before the header is included, the same in a whole program.
 */
#if !defined(KP_HPP_STD_EXPECTED)
#if defined(__cpp_lib_expected) && __cpp_lib_expected >= 202211L
#define KP_HPP_STD_EXPECTED 1
#else
#define KP_HPP_STD_EXPECTED 0
#endif
#endif
#if KP_HPP_STD_EXPECTED
#include <expected>
#endif

// What the names below are depends on the compiler's settings. Their inner namespace says which, so
// that objects compiled with different ones don't link into one program that goes wrong later. It
// also keeps them apart from the library's own names, which are in `kp` as well.
#if KP_HPP_HAS_EXCEPTIONS && KP_HPP_STD_EXPECTED
#define KP_HPP_SETTINGS cpp3_expected
#elif KP_HPP_HAS_EXCEPTIONS
#define KP_HPP_SETTINGS cpp3
#elif KP_HPP_STD_EXPECTED
#define KP_HPP_SETTINGS cpp3_expected_no_exceptions
#else
#define KP_HPP_SETTINGS cpp3_no_exceptions
#endif

// [[unlikely]] is C++20's.
#define KP_HPP_UNLIKELY(condition) __builtin_expect(static_cast<bool>(condition), 0)

namespace kp {
inline namespace KP_HPP_SETTINGS {

// --- Types and values -------------------------------------------------------------------------

/** The value types, by their codes. */
enum class Type : std::uint32_t {
    boolean = KP_TYPE_BOOLEAN,
    int8 = KP_TYPE_INT8,
    int16 = KP_TYPE_INT16,
    int32 = KP_TYPE_INT32,
    int64 = KP_TYPE_INT64,
    uint8 = KP_TYPE_UINT8,
    uint16 = KP_TYPE_UINT16,
    uint32 = KP_TYPE_UINT32,
    uint64 = KP_TYPE_UINT64,
    float_ = KP_TYPE_FLOAT,
    double_ = KP_TYPE_DOUBLE,
    string = KP_TYPE_STRING,
    bytearray = KP_TYPE_BYTEARRAY,
    raw = KP_TYPE_RAW
};

/** Gives the type's name, such as "int32"; "?" for a code that no type has. */
inline const char *name(Type type) noexcept
{
    const char *text = kp_type2str(static_cast<std::uint32_t>(type));
    return text ? text : "?";
}

/** The value of a "bytearray". */
using Bytes = std::vector<std::byte>;

/** The value of a "raw". Its bytes are usually those of a structure. */
struct Raw {
    Bytes bytes;

    friend bool operator==(const Raw &a, const Raw &b)
    {
        return a.bytes == b.bytes;
    }
    friend bool operator!=(const Raw &a, const Raw &b)
    {
        return !(a == b);
    }
};

/** Points of time as the library has them: microseconds since the Unix epoch, wall clock. */
using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

/** A value and what belongs to it. */
template <class T> struct Sample {
    T value;               /**< the value */
    std::uint32_t quality; /**< 0 none, 1 good, others the application's; at most 255 */
    TimePoint timestamp;   /**< of the write */
    TimePoint source_time; /**< given by the writer */

    Sample() noexcept(std::is_nothrow_default_constructible_v<T>)
    {
    }

    /** Says whether the quality is 1, which a plain write stores. */
    bool good() const noexcept
    {
        return quality == KP_QUALITY_GOOD;
    }
};

// --- Errors and results -----------------------------------------------------------------------

/** Why something failed. */
enum class Reason : std::uint8_t {
    closed,      /**< the node is destroyed, or the owner was moved from */
    wrong_type,  /**< the topic has another type: `found` instead of `expected` */
    wrong_size,  /**< a structure of another size: `size` bytes instead of `most` */
    undeclared,  /**< no provider has declared the topic yet */
    no_value,    /**< the topic has no value yet */
    busy,        /**< a write was in progress all the time */
    empty_value, /**< a value has at least one byte */
    too_large,   /**< a value of `size` bytes where `most` are declared */
    system       /**< `function` failed with `system_error`, or refused its arguments with 0 */
};

/** What the library reported, and what is known about it. A plain record that allocates nothing. */
struct Error {
    Reason reason = Reason::system;
    Type expected = Type::raw;          /**< what was asked for, of wrong_type */
    Type found = Type::raw;             /**< what the topic has, of wrong_type */
    int system_error = 0;               /**< errno, or 0 */
    const char *function = "";          /**< the function of kp.h that failed, if one was called */
    std::uint32_t size = 0;             /**< bytes that there are */
    std::uint32_t most = 0;             /**< bytes that there may be */
    std::array<char, 104> subject_text; /**< see subject() */

    Error(Reason why, std::string_view about) noexcept : reason(why)
    {
        const std::size_t room = subject_text.size() - 1;
        const bool fits = about.size() <= room;
        const std::string_view mark = fits ? "" : "...";
        const std::string_view kept = fits ? about : about.substr(about.size() - room + 3);
        std::memcpy(subject_text.data(), mark.data(), mark.size());
        if (!kept.empty())
            std::memcpy(subject_text.data() + mark.size(), kept.data(), kept.size());
        subject_text[mark.size() + kept.size()] = '\0';
    }

    /** Gives the topic, or the name of the node. Of one longer than 103 bytes it gives the end,
        behind "...". The pointer lives as long as the error. */
    const char *subject() const noexcept
    {
        return subject_text.data();
    }

    /** Gives a line for people, such as "plant/valve is int32, not double". */
    std::string message() const
    {
        const std::string about = subject();
        switch (reason) {
        case Reason::closed:
            return (about.empty() ? std::string("it") : about) + ": the node is destroyed";
        case Reason::wrong_type:
            return about + " is " + name(found) + ", not " + name(expected);
        case Reason::wrong_size:
            return about + " holds " + std::to_string(size) + " bytes, not " + std::to_string(most);
        case Reason::undeclared:
            return about + " is declared by no provider";
        case Reason::no_value:
            return about + " has no value yet";
        case Reason::busy:
            return about + " is being written";
        case Reason::empty_value:
            return about + ": a value has at least one byte";
        case Reason::too_large:
            return about + ": a value of " + std::to_string(size) + " bytes, where " +
                   std::to_string(most) + " are declared";
        case Reason::system:
            break;
        }
        return about + ": " + function + ": " +
               (system_error != 0 ? std::strerror(system_error) : "refused");
    }
};

#if KP_HPP_HAS_EXCEPTIONS
/** What constructors throw; what() gives the error's message. */
class Failure : public std::runtime_error {
  public:
    explicit Failure(const Error &error) : std::runtime_error(error.message()), error_(error)
    {
    }
    const Error &error() const noexcept
    {
        return error_;
    }

  private:
    Error error_;
};
#endif

#if KP_HPP_STD_EXPECTED

/** A value or an Error. */
template <class T> using Result = std::expected<T, Error>;
/** An Error on its way into a Result. */
using Unexpected = std::unexpected<Error>;
/** What value() throws when there is no value. */
using BadResultAccess = std::bad_expected_access<Error>;

#else

/** An Error on its way into a Result. */
class Unexpected {
  public:
    explicit Unexpected(const Error &error) noexcept : error_(error)
    {
    }
    const Error &error() const noexcept
    {
        return error_;
    }

  private:
    Error error_;
};

#if KP_HPP_HAS_EXCEPTIONS
/** What value() throws when there is no value. Without exceptions value() prints the error on
    standard error instead and aborts. */
class BadResultAccess : public std::exception {
  public:
    explicit BadResultAccess(const Error &error) : text_(error.message()), error_(error)
    {
    }
    const char *what() const noexcept override
    {
        return text_.c_str();
    }
    const Error &error() const noexcept
    {
        return error_;
    }

  private:
    std::string text_;
    Error error_;
};
#endif

template <class T> class Result;

namespace detail {

struct Nothing {};

template <class T> using Bare = std::remove_cv_t<std::remove_reference_t<T>>;

[[noreturn, gnu::cold]] inline void refuse_access(const Error &error)
{
#if KP_HPP_HAS_EXCEPTIONS
    throw BadResultAccess(error);
#else
    (void)std::fprintf(stderr, "kp::Result without a value: %s\n", error.message().c_str());
    std::abort();
#endif
}

// Calls a function with the value of a result, or with nothing when that is void.
template <class Self, class F> decltype(auto) call_with_value(F &&function, Self &&result)
{
    if constexpr (std::is_void_v<typename Bare<Self>::value_type>) {
        (void)result;
        return std::invoke(std::forward<F>(function));
    } else {
        return std::invoke(std::forward<F>(function), *std::forward<Self>(result));
    }
}

template <class Self, class F> auto and_then(Self &&result, F &&function)
{
    using Next =
        Bare<decltype(call_with_value(std::forward<F>(function), std::forward<Self>(result)))>;
    if (result.has_value())
        return call_with_value(std::forward<F>(function), std::forward<Self>(result));
    return Next(Unexpected(result.error()));
}

template <class Self, class F> auto transform(Self &&result, F &&function)
{
    using Value = std::remove_cv_t<decltype(call_with_value(std::forward<F>(function),
                                                            std::forward<Self>(result)))>;
    if (!result.has_value())
        return Result<Value>(Unexpected(result.error()));
    if constexpr (std::is_void_v<Value>) {
        call_with_value(std::forward<F>(function), std::forward<Self>(result));
        return Result<Value>();
    } else {
        return Result<Value>(
            call_with_value(std::forward<F>(function), std::forward<Self>(result)));
    }
}

template <class Self, class F> auto or_else(Self &&result, F &&function)
{
    using Next = Bare<std::invoke_result_t<F, const Error &>>;
    if (!result.has_value())
        return std::invoke(std::forward<F>(function), result.error());
    if constexpr (std::is_void_v<typename Bare<Self>::value_type>)
        return Next();
    else
        return Next(*std::forward<Self>(result));
}

// The part of a result that does not depend on the type of its value.
template <class Stored> class ResultBase {
  public:
    using error_type = Error;
    using unexpected_type = Unexpected;

    bool has_value() const noexcept
    {
        return state_.index() == 0;
    }
    explicit operator bool() const noexcept
    {
        return has_value();
    }
    /** Gives the error. May be called only when there is no value. */
    const Error &error() const noexcept
    {
        return *std::get_if<1>(&state_);
    }

  protected:
    template <class... Arguments>
    explicit ResultBase(std::in_place_index_t<0> place, Arguments &&...arguments)
        : state_(place, std::forward<Arguments>(arguments)...)
    {
    }
    ResultBase(std::in_place_index_t<1> place, const Error &error) : state_(place, error)
    {
    }
    std::variant<Stored, Error> state_;
};

} // namespace detail

/** A value or an Error, with the interface of std::expected<T, Error>. As there, `*` and `->` may
    be used only when there is a value, and value() checks that there is one. */
template <class T> class Result : public detail::ResultBase<T> {
    using Base = detail::ResultBase<T>;

  public:
    using value_type = T;

    Result() : Base(std::in_place_index<0>)
    {
    }
    template <class U = T, class = std::enable_if_t<std::is_constructible_v<T, U> &&
                                                    !std::is_same_v<detail::Bare<U>, Result> &&
                                                    !std::is_same_v<detail::Bare<U>, Unexpected>>>
    Result(U &&value) : Base(std::in_place_index<0>, std::forward<U>(value))
    {
    }
    Result(const Unexpected &failure) : Base(std::in_place_index<1>, failure.error())
    {
    }

    T &operator*() &noexcept
    {
        return *std::get_if<0>(&this->state_);
    }
    const T &operator*() const &noexcept
    {
        return *std::get_if<0>(&this->state_);
    }
    T &&operator*() &&noexcept
    {
        return std::move(*std::get_if<0>(&this->state_));
    }
    T *operator->() noexcept
    {
        return std::get_if<0>(&this->state_);
    }
    const T *operator->() const noexcept
    {
        return std::get_if<0>(&this->state_);
    }
    T &value() &
    {
        require();
        return **this;
    }
    const T &value() const &
    {
        require();
        return **this;
    }
    T &&value() &&
    {
        require();
        return *std::move(*this);
    }
    template <class U> T value_or(U &&other) const &
    {
        return this->has_value() ? **this : static_cast<T>(std::forward<U>(other));
    }
    template <class U> T value_or(U &&other) &&
    {
        return this->has_value() ? *std::move(*this) : static_cast<T>(std::forward<U>(other));
    }
    template <class F> auto and_then(F &&function) &
    {
        return detail::and_then(*this, std::forward<F>(function));
    }
    template <class F> auto and_then(F &&function) const &
    {
        return detail::and_then(*this, std::forward<F>(function));
    }
    template <class F> auto and_then(F &&function) &&
    {
        return detail::and_then(std::move(*this), std::forward<F>(function));
    }
    template <class F> auto transform(F &&function) &
    {
        return detail::transform(*this, std::forward<F>(function));
    }
    template <class F> auto transform(F &&function) const &
    {
        return detail::transform(*this, std::forward<F>(function));
    }
    template <class F> auto transform(F &&function) &&
    {
        return detail::transform(std::move(*this), std::forward<F>(function));
    }
    template <class F> auto or_else(F &&function) const &
    {
        return detail::or_else(*this, std::forward<F>(function));
    }
    template <class F> auto or_else(F &&function) &&
    {
        return detail::or_else(std::move(*this), std::forward<F>(function));
    }

  private:
    void require() const
    {
        if (!this->has_value())
            detail::refuse_access(this->error());
    }
};

/** Nothing or an Error. */
template <> class Result<void> : public detail::ResultBase<detail::Nothing> {
    using Base = detail::ResultBase<detail::Nothing>;

  public:
    using value_type = void;

    Result() : Base(std::in_place_index<0>)
    {
    }
    Result(const Unexpected &failure) : Base(std::in_place_index<1>, failure.error())
    {
    }
    void operator*() const noexcept
    {
    }
    void value() const
    {
        if (!has_value())
            detail::refuse_access(error());
    }
    template <class F> auto and_then(F &&function) const
    {
        return detail::and_then(*this, std::forward<F>(function));
    }
    template <class F> auto transform(F &&function) const
    {
        return detail::transform(*this, std::forward<F>(function));
    }
    template <class F> auto or_else(F &&function) const
    {
        return detail::or_else(*this, std::forward<F>(function));
    }
};

#endif

class Value;

namespace detail {

template <class T> inline constexpr bool always_false = false;

// How a C++ type is stored.
enum class Form {
    none,  // it cannot be stored
    fixed, // a number or a boolean
    text,  // characters, owned or as a view
    bytes, // bytes, owned or as a view
    structure,
    dynamic // whatever the topic has
};

template <class T> constexpr bool is_character()
{
    return std::is_same_v<T, char> || std::is_same_v<T, wchar_t> || std::is_same_v<T, char16_t> ||
#if defined(__cpp_char8_t)
           std::is_same_v<T, char8_t> ||
#endif
           std::is_same_v<T, char32_t>;
}

template <class T> constexpr bool is_byte_view()
{
#if defined(__cpp_lib_span)
    return std::is_same_v<T, std::span<const std::byte>>;
#else
    return false;
#endif
}

// The integer or floating-point type behind an enumeration, else T itself.
template <class T, bool = std::is_enum_v<T>> struct Plain {
    using type = T;
};
template <class T> struct Plain<T, true> {
    using type = std::underlying_type_t<T>;
};

template <class T> constexpr Form form_of()
{
    using P = typename Plain<T>::type;
    if constexpr (std::is_same_v<T, Value>)
        return Form::dynamic;
    else if constexpr (is_character<P>() || std::is_same_v<P, long double>)
        return Form::none;
    else if constexpr (std::is_integral_v<P> || std::is_floating_point_v<P>)
        return sizeof(P) <= 8 ? Form::fixed : Form::none;
    else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>)
        return Form::text;
    else if constexpr (std::is_same_v<T, Bytes> || is_byte_view<T>())
        return Form::bytes;
    else if constexpr (std::is_class_v<T> || std::is_union_v<T>)
        return std::is_trivially_copyable_v<T> ? Form::structure : Form::none;
    else
        return Form::none;
}

template <class T> constexpr Type type_of()
{
    using P = typename Plain<T>::type;
    if constexpr (form_of<T>() == Form::text)
        return Type::string;
    else if constexpr (form_of<T>() == Form::bytes)
        return Type::bytearray;
    else if constexpr (form_of<T>() != Form::fixed)
        return Type::raw;
    else if constexpr (std::is_same_v<P, bool>)
        return Type::boolean;
    else if constexpr (std::is_same_v<P, float>)
        return Type::float_;
    else if constexpr (std::is_same_v<P, double>)
        return Type::double_;
    else if constexpr (std::is_signed_v<P>)
        return sizeof(P) == 1   ? Type::int8
               : sizeof(P) == 2 ? Type::int16
               : sizeof(P) == 4 ? Type::int32
                                : Type::int64;
    else
        return sizeof(P) == 1   ? Type::uint8
               : sizeof(P) == 2 ? Type::uint16
               : sizeof(P) == 4 ? Type::uint32
                                : Type::uint64;
}

// Says why a T cannot be stored. This is the one place with these messages.
template <class T> constexpr void require_type()
{
    static_assert(!std::is_pointer_v<T> ||
                      is_character<std::remove_cv_t<std::remove_pointer_t<T>>>(),
                  "kp: a pointer means nothing in another process; give the value itself");
    static_assert(!std::is_pointer_v<T> || std::is_void_v<T>,
                  "kp: give texts as std::string or std::string_view");
    static_assert(!is_character<T>(), "kp: a character type is neither a number nor a text here; "
                                      "use std::int8_t, std::uint8_t or std::string");
    static_assert(!std::is_same_v<T, std::remove_cv_t<T>> || !std::is_same_v<T, long double>,
                  "kp: long double is no value type; use double");
    static_assert(std::is_same_v<T, std::remove_cv_t<std::remove_reference_t<T>>>,
                  "kp: the type is given without const and &");
    static_assert(form_of<T>() != Form::none || std::is_pointer_v<T> || is_character<T>() ||
                      std::is_same_v<T, long double> ||
                      !std::is_same_v<T, std::remove_cv_t<std::remove_reference_t<T>>>,
                  "kp: a value is a bool, an integer, a float, a double, an enumeration, a "
                  "std::string, a std::string_view, a std::vector<std::byte>, a "
                  "std::span<const std::byte>, or a trivially copyable structure");
    if constexpr (form_of<T>() == Form::structure)
        static_assert(sizeof(T) <= KP_MAX_VALUE_SIZE,
                      "kp: a value has at most 4000 bytes; this structure has more");
}

template <class Duration>
std::uint64_t
microseconds(std::chrono::time_point<std::chrono::system_clock, Duration> time) noexcept
{
    return static_cast<std::uint64_t>(
        std::chrono::floor<std::chrono::microseconds>(time).time_since_epoch().count());
}

inline std::uint64_t microseconds(TimePoint time) noexcept
{
    return static_cast<std::uint64_t>(time.time_since_epoch().count());
}

// Makes a value of a type of fixed size from its bytes.
template <class T> T from_bytes(const void *bytes) noexcept
{
    if constexpr (std::is_same_v<typename Plain<T>::type, bool>) {
        return static_cast<T>(*static_cast<const unsigned char *>(bytes) != 0);
    } else {
        static_assert(std::is_trivially_copyable_v<T>);
        struct alignas(T) Place {
            unsigned char bytes[sizeof(T)];
        } place;
        std::memcpy(place.bytes, bytes, sizeof(T));
        return __builtin_bit_cast(T, place);
    }
}

} // namespace detail

/**
 * A value of any of the fourteen types, for patterns and generic tools. It is a std::variant whose
 * index is the type's code.
 */
class Value : public std::variant<bool, std::int8_t, std::int16_t, std::int32_t, std::int64_t,
                                  std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, float,
                                  double, std::string, Bytes, Raw> {
  public:
    using Variant = std::variant<bool, std::int8_t, std::int16_t, std::int32_t, std::int64_t,
                                 std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, float,
                                 double, std::string, Bytes, Raw>;
    using Variant::Variant;

    Type type() const noexcept
    {
        return static_cast<Type>(index());
    }

    /** Gives the same value as a plain std::variant. */
    const Variant &variant() const noexcept
    {
        return *this;
    }

    /** Gives the value as a T when it has the type that a Consumer<T> reads. The errors are
        wrong_type, and wrong_size for a structure; `topic` is what they name. */
    template <class T> Result<T> as(std::string_view topic = "the value") const;
};

static_assert(std::variant_size_v<Value::Variant> == 14);

namespace detail {

template <class Stream> void print_bytes(Stream &stream, const Bytes &bytes)
{
    constexpr const char *kDigits = "0123456789abcdef";
    for (const std::byte byte : bytes)
        stream << kDigits[std::to_integer<unsigned>(byte) >> 4]
               << kDigits[std::to_integer<unsigned>(byte) & 15U];
}

template <class Stream, class T> void print(Stream &stream, const T &value)
{
    if constexpr (std::is_same_v<T, bool>)
        stream << (value ? "true" : "false");
    else if constexpr (std::is_integral_v<T> && sizeof(T) == 1)
        stream << static_cast<int>(value);
    else if constexpr (std::is_same_v<T, Bytes>)
        print_bytes(stream, value);
    else if constexpr (std::is_same_v<T, Raw>)
        print_bytes(stream, value.bytes);
    else
        stream << value;
}

// Makes a value of a type from its bytes. There must be as many as the type has.
inline Value value_of(Type type, const std::byte *bytes, std::size_t size)
{
    switch (type) {
    case Type::boolean:
        return from_bytes<bool>(bytes);
    case Type::int8:
        return from_bytes<std::int8_t>(bytes);
    case Type::int16:
        return from_bytes<std::int16_t>(bytes);
    case Type::int32:
        return from_bytes<std::int32_t>(bytes);
    case Type::int64:
        return from_bytes<std::int64_t>(bytes);
    case Type::uint8:
        return from_bytes<std::uint8_t>(bytes);
    case Type::uint16:
        return from_bytes<std::uint16_t>(bytes);
    case Type::uint32:
        return from_bytes<std::uint32_t>(bytes);
    case Type::uint64:
        return from_bytes<std::uint64_t>(bytes);
    case Type::float_:
        return from_bytes<float>(bytes);
    case Type::double_:
        return from_bytes<double>(bytes);
    case Type::string:
        return std::string(reinterpret_cast<const char *>(bytes), size);
    case Type::bytearray:
        return Bytes(bytes, bytes + size);
    case Type::raw:
        break;
    }
    return Raw{Bytes(bytes, bytes + size)};
}

} // namespace detail

template <class T> Result<T> Value::as(std::string_view topic) const
{
    detail::require_type<T>();
    constexpr Type wanted = detail::type_of<T>();
    if (type() != wanted) {
        Error error(Reason::wrong_type, topic);
        error.expected = wanted;
        error.found = type();
        return Unexpected(error);
    }
    constexpr auto code = static_cast<std::size_t>(wanted);
    if constexpr (detail::form_of<T>() == detail::Form::structure) {
        const Bytes &bytes = std::get_if<code>(&variant())->bytes;
        if (bytes.size() == sizeof(T))
            return detail::from_bytes<T>(bytes.data());
        Error error(Reason::wrong_size, topic);
        error.size = static_cast<std::uint32_t>(bytes.size());
        error.most = sizeof(T);
        return Unexpected(error);
    } else {
        return static_cast<T>(*std::get_if<code>(&variant()));
    }
}

/** Prints a value: true and false, numbers, texts as they are, bytes as hexadecimal digits. */
template <class Traits>
std::basic_ostream<char, Traits> &operator<<(std::basic_ostream<char, Traits> &stream,
                                             const Value &value)
{
    std::visit([&stream](const auto &held) { detail::print(stream, held); }, value.variant());
    return stream;
}

// --- What a node and its owners share ---------------------------------------------------------

namespace detail {

// The words of a change notice's bitmap.
inline constexpr std::size_t kWords = KP_BUCKET_COUNT / 64;

struct State;
class OwnedTag;

// What a node knows about one of its tags. The tag's user data leads here.
struct Link {
    kp_tag_t *tag = nullptr;
    OwnedTag *owner = nullptr; // a provider's or consumer's; null when it is only subscribed
    Link *next = nullptr;
    Link *previous = nullptr;
    std::uint64_t listed = 0;  // the timestamp that take() last listed
    std::uint64_t skipped = 0; // the visit in which its value could not be read
    std::uint32_t most = 0;    // a provider's declared size
    bool is_provider = false;
};

// A provider's or consumer's hold on its tag, and what reading and writing need. All of it is null
// once the node is destroyed or the owner was moved from.
class OwnedTag {
  public:
    kp_t *handle = nullptr;
    kp_tag_t *tag = nullptr;
    std::uint64_t verified = 0; // the timestamp with which the topic's type was last looked at

    OwnedTag() = default;
    OwnedTag(OwnedTag &&other) noexcept
    {
        take(other);
    }
    OwnedTag &operator=(OwnedTag &&other) noexcept
    {
        if (this != &other) {
            release();
            take(other);
        }
        return *this;
    }
    ~OwnedTag()
    {
        release();
    }

    void hold(State &state, Link &link) noexcept;

    // Lets go without closing the tag, which its node does.
    void lose() noexcept
    {
        handle = nullptr;
        tag = nullptr;
        verified = 0;
        state_ = nullptr;
        link_ = nullptr;
    }
    std::uint32_t most() const noexcept
    {
        return link_ ? link_->most : 0;
    }
    // Empty when the node is gone.
    std::string_view topic() const noexcept
    {
        return tag ? std::string_view(kp_tag_get_topic(tag)) : std::string_view();
    }

  private:
    void release() noexcept;
    void take(OwnedTag &other) noexcept
    {
        handle = other.handle;
        tag = other.tag;
        verified = other.verified;
        state_ = other.state_;
        link_ = other.link_;
        if (link_)
            link_->owner = this;
        other.lose();
    }

    State *state_ = nullptr;
    Link *link_ = nullptr;
};

// Takes the next level from the front of a topic or pattern; an empty one stands for the end.
inline std::string_view next_level(std::string_view &rest) noexcept
{
    while (!rest.empty() && rest.front() == '/')
        rest.remove_prefix(1);
    const std::string_view level = rest.substr(0, rest.find('/'));
    rest.remove_prefix(level.size());
    return level;
}

// Says whether a subscription covers a topic, by the rules of kp_sub_topic().
inline bool covers(std::string_view pattern, std::string_view topic) noexcept
{
    for (;;) {
        const std::string_view wanted = next_level(pattern);
        const std::string_view given = next_level(topic);
        if (wanted.empty() || given.empty())
            return wanted.empty() && given.empty();
        if (wanted.front() == '#')
            return true;
        if (wanted.front() != '+' && wanted != given)
            return false;
    }
}

inline bool is_pattern(std::string_view text) noexcept
{
    return text.find_first_of("+#") != std::string_view::npos;
}

[[gnu::cold, gnu::noinline]] inline Error system_failure(std::string_view about,
                                                         const char *function, int cause)
{
    Error error(Reason::system, about);
    error.function = function;
    error.system_error = cause;
    return error;
}

[[gnu::cold, gnu::noinline]] inline Error type_failure(std::string_view about, Type expected,
                                                       std::uint32_t found)
{
    Error error(Reason::wrong_type, about);
    error.expected = expected;
    error.found = static_cast<Type>(found);
    return error;
}

[[gnu::cold, gnu::noinline]] inline Error size_failure(Reason reason, std::string_view about,
                                                       std::size_t size, std::size_t most)
{
    Error error(reason, about);
    error.size = static_cast<std::uint32_t>(std::min<std::size_t>(size, UINT32_MAX));
    error.most = static_cast<std::uint32_t>(most);
    return error;
}

// Says why a read gave `got` bytes, or -1, although `wanted` bytes of a type were expected. If
// `wanted` is 0, any number was.
[[gnu::cold, gnu::noinline]] inline Error read_failure(kp_tag_t *tag, Type expected,
                                                       std::int32_t got, std::size_t wanted)
{
    if (!tag)
        return Error(Reason::closed, "");
    const char *topic = kp_tag_get_topic(tag);
    std::uint32_t found = 0;
    std::uint32_t size = 0;
    if (kp_tag_get_value_info(tag, &found, &size, nullptr) != 0)
        return Error(Reason::undeclared, topic);
    if (found != static_cast<std::uint32_t>(expected))
        return type_failure(topic, expected, found);
    if (size == 0)
        return Error(Reason::no_value, topic);
    const std::size_t held = got < 0 ? size : static_cast<std::size_t>(got);
    if (wanted != 0 && held != wanted)
        return size_failure(Reason::wrong_size, topic, held, wanted);
    Error error(Reason::busy, topic);
    error.function = "kp_tag_read_consistent";
    return error;
}

[[gnu::cold, gnu::noinline]] inline Error write_failure(kp_tag_t *tag, Type expected,
                                                        std::size_t size, const char *function)
{
    if (!tag)
        return Error(Reason::closed, "");
    const char *topic = kp_tag_get_topic(tag);
    std::uint32_t found = 0;
    std::uint32_t most = 0;
    if (kp_tag_get_value_info(tag, &found, nullptr, nullptr) != 0)
        return Error(Reason::undeclared, topic);
    if (found != static_cast<std::uint32_t>(expected))
        return type_failure(topic, expected, found);
    if (kp_tag_get_max_value_size(tag, &most) == 0 && size != most)
        return size_failure(Reason::too_large, topic, size, most);
    return system_failure(topic, function, 0);
}

// Says whether the topic has this type now, and remembers which write it has looked at.
inline bool verify_type(OwnedTag &owned, Type expected, std::uint64_t timestamp) noexcept
{
    std::uint32_t found = 0;
    const bool is_right = kp_tag_get_value_info(owned.tag, &found, nullptr, nullptr) == 0 &&
                          found == static_cast<std::uint32_t>(expected);
    owned.verified = is_right ? timestamp : 0;
    return is_right;
}

// The microseconds of a time point, for a function of kp.h to fill in. A time point is one
// duration, and that is one number, so its address is the number's.
inline std::uint64_t *microseconds_of(TimePoint &time) noexcept
{
    static_assert(std::is_standard_layout_v<TimePoint> &&
                  sizeof(TimePoint) == sizeof(std::uint64_t));
    static_assert(std::is_same_v<TimePoint::rep, std::int64_t>);
    return reinterpret_cast<std::uint64_t *>(&time);
}

// Reads the value into a buffer, and what belongs to it into the sample.
template <class T>
std::int32_t read_consistent(kp_tag_t *tag, void *buffer, std::uint32_t room,
                             Sample<T> &sample) noexcept
{
    return kp_tag_read_consistent(tag, buffer, room, &sample.quality,
                                  microseconds_of(sample.timestamp),
                                  microseconds_of(sample.source_time));
}

template <class T>
std::int32_t read_plain(kp_tag_t *tag, void *buffer, std::uint32_t room, Sample<T> &sample) noexcept
{
    if (kp_tag_get_last_write_timestamp(tag, microseconds_of(sample.timestamp)) != 0)
        return -1;
    return kp_tag_read_with_source_params(tag, buffer, room, &sample.quality,
                                          microseconds_of(sample.source_time));
}

// What stands behind a node. The ranges over its changes share it. Only the node's thread uses it.
struct State {
    kp_t *handle = nullptr;
    int fd = -1;
    Link *links = nullptr;
    std::vector<std::string> subscriptions; // those in force
    // The patterns that the handle follows. It can be freed of one only by its own end, or with all
    // of its tags.
    std::vector<std::string> library_patterns;
    std::array<std::uint64_t, kWords> pending{}; // buckets to visit
    std::uint64_t visit = 1;                     // the number of the visit of a bucket

    State() = default;
    State(const State &) = delete;
    State &operator=(const State &) = delete;
    ~State()
    {
        close();
    }

    void close() noexcept
    {
        if (!handle)
            return;
        while (Link *link = links) {
            if (link->owner)
                link->owner->lose();
            forget(link);
        }
        (void)kp_close(handle);
        handle = nullptr;
        fd = -1;
    }

    // Enters a tag; null when out of memory.
    Link *enter(kp_tag_t *tag) noexcept
    {
        Link *link = new (std::nothrow) Link;
        if (!link)
            return nullptr;
        link->tag = tag;
        link->next = links;
        if (links)
            links->previous = link;
        links = link;
        (void)kp_tag_set_user_data(tag, link);
        return link;
    }

    void forget(Link *link) noexcept
    {
        (link->previous ? link->previous->next : links) = link->next;
        if (link->next)
            link->next->previous = link->previous;
        delete link;
    }

    void destroy(Link *link) noexcept
    {
        (void)kp_tag_destroy(handle, link->tag);
        forget(link);
    }

    // Gives what is known about a tag. A tag that the handle has made by itself is entered here.
    Link *link_of(kp_tag_t *tag) noexcept
    {
        if (void *known = kp_tag_get_user_data(tag))
            return static_cast<Link *>(known);
        Link *link = enter(tag);
        if (link && kp_tag_need_read(tag) == 0)
            (void)kp_tag_get_last_write_timestamp(tag, &link->listed);
        return link;
    }

    bool is_covered(std::string_view topic) const noexcept
    {
        return std::any_of(subscriptions.begin(), subscriptions.end(),
                           [topic](const std::string &text) { return covers(text, topic); });
    }

    bool is_active(const std::string &text) const noexcept
    {
        return std::find(subscriptions.begin(), subscriptions.end(), text) != subscriptions.end();
    }

    // Says whether the handle still follows a pattern that was unsubscribed.
    bool has_leftovers() const noexcept
    {
        return std::any_of(library_patterns.begin(), library_patterns.end(),
                           [this](const std::string &text) { return !is_active(text); });
    }

    bool follows(std::string_view topic) const noexcept
    {
        return std::any_of(library_patterns.begin(), library_patterns.end(),
                           [topic](const std::string &text) { return covers(text, topic); });
    }

    // Finds another tag of the node for the same topic, in the role asked for.
    Link *sibling(const Link &link, bool is_provider) noexcept
    {
        const char *topic = kp_tag_get_topic(link.tag);
        for (kp_dict_entry *entry = kp_lookup_head(handle, kp_hash(topic)); entry;
             entry = entry->next) {
            Link *other = entry->tag == link.tag ? nullptr : link_of(entry->tag);
            if (other && other->is_provider == is_provider &&
                std::strcmp(kp_tag_get_topic(other->tag), topic) == 0)
                return other;
        }
        return nullptr;
    }

    // Takes a tag back from its owner. A consumer's tag stays when a subscription needs it.
    void release(Link *link) noexcept
    {
        link->owner = nullptr;
        const std::string_view topic = kp_tag_get_topic(link->tag);
        if (link->is_provider || !is_covered(topic) || sibling(*link, false))
            destroy(link);
    }

    // Destroys the tags that nobody owns and no subscription covers.
    void prune() noexcept
    {
        for (std::uint32_t bucket = 0; bucket < KP_BUCKET_COUNT; ++bucket)
            for (kp_dict_entry *entry = kp_lookup_head(handle, bucket); entry;) {
                kp_dict_entry *next = entry->next; // destroying the tag frees the entry
                Link *link = link_of(entry->tag);
                if (link && !link->owner && !is_covered(kp_tag_get_topic(entry->tag)))
                    destroy(link);
                entry = next;
            }
    }

    void visit_all() noexcept
    {
        pending.fill(~std::uint64_t{0});
        wake();
    }

    // Makes the descriptor readable when there are buckets to visit that no notice tells of.
    void wake() const noexcept
    {
        (void)eventfd_write(fd, 1);
    }

    bool has_pending() const noexcept
    {
        return std::any_of(pending.begin(), pending.end(),
                           [](std::uint64_t word) { return word != 0; });
    }

    // Adds the buckets of the notices that the library has received.
    void take_notice() noexcept
    {
        kp_write_info notice;
        if (!handle || kp_take_notice(handle, &notice) != 1)
            return;
        std::array<std::uint64_t, kWords> words;
        std::memcpy(words.data(), notice.bitmap, sizeof(words));
        for (std::size_t index = 0; index < kWords; ++index)
            pending[index] |= words[index];
    }

    // Gives the handle each topic below the directory `topic` of the store that the pattern covers.
    // The handle follows those that one of its own patterns covers.
    void follow_existing(std::string &topic, std::string_view pattern)
    {
        DIR *directory = opendir(("/dev/shm/zu-kp/" + topic).c_str());
        if (!directory)
            return;
        while (const dirent *entry = readdir(directory)) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..")
                continue;
            const std::size_t length = topic.size();
            topic.append(length != 0 ? "/" : "").append(name);
            if (entry->d_type == DT_DIR)
                follow_existing(topic, pattern);
            else if (entry->d_type == DT_REG && covers(pattern, topic))
                (void)kp_sub_plain_topic(handle, topic.c_str());
            topic.resize(length);
        }
        (void)closedir(directory);
    }

    Result<void> subscribe_pattern(const std::string &pattern)
    {
        const bool is_followed = follows(pattern);
        errno = 0;
        if (kp_sub_topic(handle, pattern.c_str()) != 0 && errno != ENOENT) {
            // A missing store is no failure, since providers make it. After any other one the
            // library may have recorded the pattern all the same.
            const Error error = system_failure(pattern, "kp_sub_topic", errno);
            if (!is_followed)
                library_patterns.push_back(pattern);
            return Unexpected(error);
        }
        if (!is_followed)
            library_patterns.push_back(pattern);
        if (is_followed) { // then the library has looked for no files
            std::string topic;
            follow_existing(topic, pattern);
        }
        return {};
    }

    // Gives the time at which the process first subscribed, and tells the library at that time.
    static std::uint64_t first_subscription() noexcept
    {
        static const std::uint64_t first = [] {
            (void)kp_sub_topic(nullptr, "");
            return kp_get_timestamp_us();
        }();
        return first;
    }

    Result<void> subscribe_topic(const std::string &topic)
    {
        if (kp_get_tag(handle, topic.c_str()))
            return {};
        errno = 0;
        kp_tag_t *tag = kp_tag_consumer_new(handle, topic.c_str());
        if (!tag)
            return Unexpected(system_failure(topic, "kp_tag_consumer_new", errno));
        Link *link = enter(tag);
        if (!link) {
            (void)kp_tag_destroy(handle, tag);
            return Unexpected(system_failure(topic, "kp_tag_consumer_new", ENOMEM));
        }
        // As the library has it: what was written before the first subscription is no change.
        std::uint64_t last = 0;
        (void)kp_tag_get_last_write_timestamp(tag, &last);
        link->listed = last > first_subscription() ? 0 : last;
        return {};
    }

    Result<void> subscribe(const std::string &text)
    {
        if (!handle)
            return Unexpected(Error(Reason::closed, text));
        if (text.empty() || text.find('\0') != std::string::npos)
            return Unexpected(system_failure(text.c_str(), "kp_sub_topic", EINVAL));
        if (is_active(text))
            return {};
        (void)first_subscription();
        subscriptions.push_back(text); // comes first, since it can throw
        const Result<void> done =
            is_pattern(text) ? subscribe_pattern(text) : subscribe_topic(text);
        if (!done)
            subscriptions.pop_back();
        visit_all();
        return done;
    }

    Result<void> unsubscribe(const std::string &text)
    {
        if (!handle)
            return Unexpected(Error(Reason::closed, text));
        const auto place = std::find(subscriptions.begin(), subscriptions.end(), text);
        if (place == subscriptions.end())
            return {};
        subscriptions.erase(place);
        prune();
        return {};
    }
};

inline void OwnedTag::hold(State &state, Link &link) noexcept
{
    release();
    handle = state.handle;
    tag = link.tag;
    state_ = &state;
    link_ = &link;
    link.owner = this;
}

inline void OwnedTag::release() noexcept
{
    if (link_)
        state_->release(link_);
    lose();
}

// Reads a tag's current value, of whatever type, as a whole. False when it cannot be read now.
inline bool read_any(kp_tag_t *tag, Sample<Value> &sample)
{
    std::byte bytes[KP_MAX_VALUE_SIZE];
    std::uint32_t before = 0;
    std::uint32_t after = 0;
    if (kp_tag_get_value_info(tag, &before, nullptr, nullptr) != 0)
        return false;
    const std::int32_t size = read_consistent(tag, bytes, sizeof(bytes), sample);
    if (size <= 0 || kp_tag_get_value_info(tag, &after, nullptr, nullptr) != 0 || before != after ||
        before >= std::variant_size_v<Value::Variant> ||
        kp_get_value_size(after, static_cast<std::uint32_t>(size)) !=
            static_cast<std::uint32_t>(size))
        return false;
    sample.value = value_of(static_cast<Type>(after), bytes, static_cast<std::size_t>(size));
    return true;
}

} // namespace detail

// --- Changes ----------------------------------------------------------------------------------

/** A topic that was written, with the value that it had when the walk came to it. */
class Change {
  public:
    Change(Change &&) = default;
    Change &operator=(Change &&) = default;
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;

    const std::string &topic() const noexcept
    {
        return topic_;
    }
    const Value &value() const noexcept
    {
        return sample_.value;
    }
    /** Gives the value as a T, or an error that names both types. */
    template <class T> Result<T> as() const
    {
        return sample_.value.as<T>(topic_);
    }
    std::uint32_t quality() const noexcept
    {
        return sample_.quality;
    }
    bool good() const noexcept
    {
        return sample_.good();
    }
    TimePoint timestamp() const noexcept
    {
        return sample_.timestamp;
    }
    TimePoint source_time() const noexcept
    {
        return sample_.source_time;
    }

  private:
    friend class Changes;
    Change() noexcept
    {
        sample_.quality = KP_QUALITY_NONE;
    }

    std::string topic_;
    Sample<Value> sample_;
};

/**
 * The changes that wait: a range that is walked once and has each topic once, with its latest
 * value.
 *
 * Everything is allowed while it is walked: subscribing, creating and destroying providers and
 * consumers, leaving it early or by an exception, even destroying the node, which ends it. Changes
 * that the walk has not reached stay, and keep the node's descriptor readable.
 */
class Changes {
  public:
    class Iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = Change;
        using difference_type = std::ptrdiff_t;
        using pointer = Change *;
        using reference = Change;

        Iterator() = default;
        explicit Iterator(Changes *changes) : changes_(changes)
        {
            step();
        }
        /** Hands the change over. May be called once for each position. */
        Change operator*() const
        {
            return std::move(changes_->change_);
        }
        Iterator &operator++()
        {
            step();
            return *this;
        }
        void operator++(int)
        {
            step();
        }
        friend bool operator==(const Iterator &a, const Iterator &b) noexcept
        {
            return a.changes_ == b.changes_;
        }
        friend bool operator!=(const Iterator &a, const Iterator &b) noexcept
        {
            return !(a == b);
        }

      private:
        void step()
        {
            if (!changes_->advance())
                changes_ = nullptr;
        }
        Changes *changes_ = nullptr;
    };

    Changes(Changes &&) = default;
    Changes &operator=(Changes &&) = delete;
    Changes(const Changes &) = delete;
    Changes &operator=(const Changes &) = delete;
    ~Changes()
    {
        if (state_ && state_->handle && state_->has_pending())
            state_->wake();
    }

    Iterator begin()
    {
        return state_ ? Iterator(this) : Iterator();
    }
    Iterator end() noexcept
    {
        return Iterator();
    }

  private:
    friend class Node;
    explicit Changes(std::shared_ptr<detail::State> state, int timeout_ms, bool waits)
        : state_(std::move(state)), timeout_ms_(timeout_ms), waits_(waits)
    {
    }

    // Comes to the next change; false at the end.
    bool advance()
    {
        for (;;) {
            if (find_next())
                return true;
            if (!waits_ || !state_->handle || !wait(state_->fd, timeout_ms_))
                return false;
            state_->take_notice();
            if (state_->has_leftovers())
                state_->prune();
        }
    }

    static bool wait(int fd, int timeout_ms) noexcept
    {
        pollfd ready{fd, POLLIN, 0};
        return poll(&ready, 1, timeout_ms) > 0;
    }

    bool find_next()
    {
        detail::State &state = *state_;
        while (state.handle) {
            std::size_t word = 0;
            while (word < detail::kWords && state.pending[word] == 0)
                ++word;
            if (word == detail::kWords)
                return false;
            const auto bit = static_cast<unsigned>(__builtin_ctzll(state.pending[word]));
            if (find_in_bucket(state, static_cast<std::uint32_t>(word * 64 + bit)))
                return true;
            state.pending[word] &= ~(std::uint64_t{1} << bit);
            ++state.visit;
        }
        return false;
    }

    // Starts at the head each time, since whoever has the last change may have destroyed any tag.
    bool find_in_bucket(detail::State &state, std::uint32_t bucket)
    {
        for (kp_dict_entry *entry = kp_lookup_head(state.handle, bucket); entry;
             entry = entry->next) {
            detail::Link *link = state.link_of(entry->tag);
            if (!link || link->skipped == state.visit || !is_unlisted(state, *link))
                continue;
            if (!detail::read_any(entry->tag, change_.sample_)) {
                link->skipped = state.visit; // another notice comes when the write ends
                continue;
            }
            change_.topic_ = kp_tag_get_topic(entry->tag);
            mark_listed(state, *link);
            if (change_.sample_.quality != KP_QUALITY_NONE)
                return true;
        }
        return false;
    }

    static bool is_unlisted(detail::State &state, detail::Link &link) noexcept
    {
        if (link.is_provider)
            return kp_tag_need_read(link.tag) == 1; // somebody else wrote it
        std::uint64_t last = 0;
        if (kp_tag_get_last_write_timestamp(link.tag, &last) != 0 || last == link.listed ||
            kp_tag_has_value(link.tag) == 0)
            return false;
        if (!link.owner && !state.is_covered(kp_tag_get_topic(link.tag)))
            return false;
        if (!state.sibling(link, true))
            return true;
        link.listed = last; // the node's provider of this topic tells what others write
        return false;
    }

    void mark_listed(detail::State &state, detail::Link &link) noexcept
    {
        const auto listed = detail::microseconds(change_.sample_.timestamp);
        const char *topic = change_.topic_.c_str();
        for (kp_dict_entry *entry = kp_lookup_head(state.handle, kp_hash(topic)); entry;
             entry = entry->next)
            if (std::strcmp(kp_tag_get_topic(entry->tag), topic) == 0)
                if (detail::Link *other = state.link_of(entry->tag))
                    other->listed = listed;
        link.listed = listed;
    }

    std::shared_ptr<detail::State> state_;
    int timeout_ms_;
    bool waits_;
    Change change_;
};

// --- Node, providers and consumers ------------------------------------------------------------

/** How a node behaves. */
struct NodeOptions {
    /** It announces each new provider to the device, for those who follow patterns. */
    bool announce = true;
};

/** What a provider declares beside its type. */
struct Declaration {
    std::uint32_t max_size = KP_MAX_VALUE_SIZE; /**< bytes of the longest text or byte array */
    std::uint32_t extra_info = 0;               /**< handed to readers unread */
};

template <class T> class Provider;
template <class T> class Consumer;

/** A place in the mesh of the device. Providers, consumers and subscriptions belong to a node. */
class Node {
  public:
    /**
     * Joins the mesh. The name is that of kp_new(): at most 92 characters, and used once. An empty
     * name makes up a number. The error is Reason::system. Takes as long as kp_new() does.
     */
    static Result<Node> open(const std::string &name, NodeOptions options = {})
    {
        auto state = std::make_shared<detail::State>();
        errno = 0;
        state->handle = kp_new(name.c_str(), nullptr);
        if (!state->handle)
            return Unexpected(detail::system_failure(name, "kp_new", errno));
        (void)kp_set_new_tag_notify(state->handle, options.announce ? 1 : 0);
        state->fd = kp_get_fd(state->handle);
        if (state->fd < 0)
            return Unexpected(detail::system_failure(name, "kp_get_fd", errno));
        return Node(std::move(state));
    }

#if KP_HPP_HAS_EXCEPTIONS
    explicit Node(const std::string &name, NodeOptions options = {})
        : Node(must(open(name, options)))
    {
    }
#else
    template <class Name, class = std::enable_if_t<std::is_convertible_v<Name, std::string>>>
    explicit Node(const Name &, NodeOptions = {})
    {
        static_assert(detail::always_false<Name>,
                      "kp: without exceptions a node is made by kp::Node::open(name)");
    }
#endif

    Node(Node &&) = default;
    Node &operator=(Node &&other) noexcept
    {
        if (this != &other) {
            close();
            state_ = std::move(other.state_);
        }
        return *this;
    }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    ~Node()
    {
        close();
    }

    /**
     * Gives a descriptor that is readable while changes wait, for poll, epoll or any loop. The node
     * keeps and closes it. -1 after the node was moved from.
     */
    int fd() const noexcept
    {
        return state_ ? state_->fd : -1;
    }

    /** Declares a topic and gives its provider. Throws the errors of Provider<T>::open(). */
    template <class T> Provider<T> provide(const std::string &topic, Declaration declaration = {});

    /** Opens a topic to be read. Throws the errors of Consumer<T>::open(). */
    template <class T> Consumer<T> consume(const std::string &topic);

    /**
     * Follows a topic or a pattern, in which `+` stands for one level and `#` for all that remain:
     * take() lists what was written since the process's first subscription. Topics need not exist
     * yet. The errors are closed and system.
     */
    Result<void> subscribe(const std::string &topic_or_pattern)
    {
        if (!state_)
            return Unexpected(Error(Reason::closed, topic_or_pattern));
        return state_->subscribe(topic_or_pattern);
    }

    /**
     * Ends a subscription. The node's providers and consumers stay as they are, and so do topics
     * that another subscription covers. A text that was not subscribed changes nothing.
     */
    Result<void> unsubscribe(const std::string &topic_or_pattern)
    {
        if (!state_)
            return Unexpected(Error(Reason::closed, topic_or_pattern));
        return state_->unsubscribe(topic_or_pattern);
    }

    /**
     * Gives what changed since it was last listed: topics that the node subscribes or consumes, and
     * those that it provides and somebody else wrote. Does not wait. A change is listed even when a
     * consumer has read it already. A value of quality 0 is no change.
     */
    Changes take()
    {
        if (state_ && state_->handle) {
            state_->take_notice();
            if (state_->has_leftovers())
                state_->prune();
        }
        return Changes(state_, 0, false);
    }

    /** Waits for changes. False when the time is over before one comes, or when a signal comes. */
    template <class Number, class Period>
    bool wait(std::chrono::duration<Number, Period> timeout) const
    {
        return wait_ms(milliseconds(timeout));
    }
    /** Waits for changes without an end. False when a signal comes. */
    bool wait() const
    {
        return wait_ms(-1);
    }

    /** Gives changes as they come, for a program without a loop. The range ends when none comes for
        so long, or when a signal comes. */
    template <class Number, class Period>
    Changes changes(std::chrono::duration<Number, Period> timeout)
    {
        return Changes(state_, milliseconds(timeout), true);
    }
    /** Gives changes as they come. The range ends when a signal comes. */
    Changes changes()
    {
        return Changes(state_, -1, true);
    }

#if KP_HPP_HAS_COROUTINES
    /**
     * Gives the next changes to a coroutine: `for (kp::Change change : co_await
     * node.next(executor))`. The executor provides `when_readable(int fd, std::coroutine_handle<>
     * waiting)`, which resumes `waiting` once, when the descriptor is readable.
     */
    template <class WhenReadable> auto next(WhenReadable when_readable)
    {
        struct Awaiter {
            Node *node;
            WhenReadable when_readable;

            bool await_ready() const
            {
                return node->fd() < 0 || node->wait(std::chrono::milliseconds(0));
            }
            void await_suspend(std::coroutine_handle<> waiting)
            {
                when_readable(node->fd(), waiting);
            }
            Changes await_resume()
            {
                return node->take();
            }
        };
        return Awaiter{this, std::move(when_readable)};
    }
#endif

    /** Tells all peers which topics were written since the last call. Waits as kp_tag_notify() does
        while a peer does not read. The error is closed. */
    Result<void> notify()
    {
        if (!state_ || !state_->handle)
            return Unexpected(Error(Reason::closed, ""));
        if (kp_tag_notify(state_->handle) != 0)
            return Unexpected(detail::system_failure("", "kp_tag_notify", 0));
        return {};
    }

    /**
     * Gives the handle, for the functions of kp.h. It belongs to the node with all its tags, so
     * destroy none of them, and don't call kp_unsub_topic() on it. Null after the node was moved
     * from.
     */
    kp_t *native() const noexcept
    {
        return state_ ? state_->handle : nullptr;
    }

  private:
    template <class T> friend class Provider;
    template <class T> friend class Consumer;

    explicit Node(std::shared_ptr<detail::State> state) : state_(std::move(state))
    {
    }

#if KP_HPP_HAS_EXCEPTIONS
    static Node must(Result<Node> &&made)
    {
        if (!made)
            throw Failure(made.error());
        return *std::move(made);
    }
#endif

    void close() noexcept
    {
        if (state_)
            state_->close();
    }

    // Rounds up, so that a wait is not shorter than asked for. Below 0 there is no wait, and above
    // what fits there is no end.
    template <class Number, class Period>
    static int milliseconds(std::chrono::duration<Number, Period> timeout)
    {
        using Milliseconds = std::chrono::duration<double, std::milli>;
        const double count = Milliseconds(timeout).count();
        return count < 0 ? 0 : count > 2e9 ? -1 : static_cast<int>(count + 0.999999);
    }

    bool wait_ms(int timeout_ms) const
    {
        if (fd() < 0)
            return false;
        pollfd ready{fd(), POLLIN, 0};
        return poll(&ready, 1, timeout_ms) > 0;
    }

    std::shared_ptr<detail::State> state_;
};

namespace detail {

// Opens a tag for an owner.
inline Result<void> open_tag(OwnedTag &owned, State *state, const std::string &topic,
                             bool is_provider, Type type, std::uint32_t max_size,
                             std::uint32_t extra_info)
{
    if (!state || !state->handle)
        return Unexpected(Error(Reason::closed, topic));
    const char *function = is_provider ? "kp_tag_provider_new" : "kp_tag_consumer_new";
    if (topic.empty() || topic.find('\0') != std::string::npos || is_pattern(topic))
        return Unexpected(system_failure(topic.c_str(), function, EINVAL));
    const std::uint64_t before = kp_get_timestamp_us();
    errno = 0;
    kp_tag_t *tag =
        is_provider ? kp_tag_provider_new(state->handle, topic.c_str(),
                                          static_cast<std::uint32_t>(type), max_size, extra_info)
                    : kp_tag_consumer_new(state->handle, topic.c_str());
    if (!tag)
        return Unexpected(system_failure(topic, function, errno));
    Link *link = state->enter(tag);
    if (!link) {
        (void)kp_tag_destroy(state->handle, tag);
        return Unexpected(system_failure(topic, function, ENOMEM));
    }
    link->is_provider = is_provider;
    link->most = max_size;
    // What is there counts as listed, but not what was written since this call began.
    std::uint64_t last = 0;
    (void)kp_tag_get_last_write_timestamp(tag, &last);
    link->listed = last < before ? last : 0;
    owned.hold(*state, *link);
    return {};
}

// The bytes that a write hands to the library. The library reads as many as the topic's type has,
// which can be 8 when another process has declared the topic anew; so there are at least 8.
template <std::size_t Size> struct Padded {
    alignas(8) unsigned char bytes[Size < 8 ? 8 : Size];

    explicit Padded(const void *value) noexcept
    {
        if constexpr (Size < 8)
            std::memset(bytes, 0, sizeof(bytes));
        std::memcpy(bytes, value, Size);
    }
};

// What a provider takes: a view for texts and bytes, a reference for all else.
#if defined(__cpp_lib_span)
using ByteView = std::span<const std::byte>;
#else
using ByteView = const Bytes &;
#endif
template <class T>
using Argument =
    std::conditional_t<form_of<T>() == Form::text, std::string_view,
                       std::conditional_t<form_of<T>() == Form::bytes, ByteView, const T &>>;

} // namespace detail

/**
 * Declares a topic with the type of T and writes it. A value that the topic had before is
 * discarded. The value stays readable as long as anybody, in any process, has the topic open.
 */
template <class T> class Provider {
  public:
    using value_type = T;

    /** Declares the topic, and announces it when the node does so. `max_size` of the declaration
        matters only for texts and bytes. The errors are closed and system. */
    static Result<Provider> open(Node &node, const std::string &topic, Declaration declaration = {})
    {
        detail::require_type<T>();
        static_assert(detail::form_of<T>() != detail::Form::dynamic,
                      "kp: a provider declares one type; kp::Value is for consumers");
        constexpr bool is_view = kForm == detail::Form::text || kForm == detail::Form::bytes;
        const std::uint32_t most =
            is_view ? declaration.max_size : static_cast<std::uint32_t>(sizeof(T));
        Provider made;
        const auto done = detail::open_tag(made.owned_, node.state_.get(), topic, true,
                                           detail::type_of<T>(), most, declaration.extra_info);
        if (!done)
            return Unexpected(done.error());
        return made;
    }

#if KP_HPP_HAS_EXCEPTIONS
    /** Does what open() does, and throws its errors. */
    Provider(Node &node, const std::string &topic, Declaration declaration = {})
    {
        auto made = open(node, topic, declaration);
        if (!made)
            throw Failure(made.error());
        *this = *std::move(made);
    }
#endif

    /** Gives the topic; empty when the node is destroyed. */
    std::string_view topic() const noexcept
    {
        return owned_.topic();
    }

    /**
     * Writes with quality 1 and the current time. Node::notify() tells others. The errors are
     * closed, empty_value and too_large; wrong_type and undeclared when another process has
     * declared the topic anew; and system.
     */
    Result<void> write(detail::Argument<T> value)
    {
        return store(value, "kp_tag_write", [this](const void *bytes, std::uint32_t size) {
            return kp_tag_write(owned_.handle, owned_.tag, bytes, size);
        });
    }

    /** Writes with a quality and the current time. Quality 255 keeps the stored one. */
    Result<void> write(detail::Argument<T> value, std::uint8_t quality)
    {
        return write_with(value, quality, kp_get_timestamp_us());
    }

    /** Writes with a quality and the time of the source. Quality 255 keeps the stored one. */
    template <class Duration>
    Result<void> write(detail::Argument<T> value, std::uint8_t quality,
                       std::chrono::time_point<std::chrono::system_clock, Duration> source_time)
    {
        return write_with(value, quality, detail::microseconds(source_time));
    }

    /** Gives the tag, for the functions of kp.h, which must not destroy it. Null when the node is
        destroyed. */
    kp_tag_t *native() const noexcept
    {
        return owned_.tag;
    }

  private:
    static constexpr detail::Form kForm = detail::form_of<T>();

    Provider() = default;

    Result<void> write_with(detail::Argument<T> value, std::uint8_t quality, std::uint64_t source)
    {
        return store(value, "kp_tag_write_with_source_params",
                     [this, quality, source](const void *bytes, std::uint32_t size) {
                         return kp_tag_write_with_source_params(owned_.handle, owned_.tag, bytes,
                                                                size, quality, source);
                     });
    }

    template <class Write>
    Result<void> store(detail::Argument<T> value, const char *function, Write write)
    {
        if constexpr (kForm == detail::Form::text || kForm == detail::Form::bytes)
            return store_view(reinterpret_cast<const char *>(value.data()), value.size(), function,
                              write);
        else
            return store_bytes<sizeof(T)>(&value, sizeof(T), function, write);
    }

    template <std::size_t Size, class Write>
    Result<void> store_bytes(const void *value, std::size_t size, const char *function, Write write)
    {
        if (KP_HPP_UNLIKELY(!owned_.tag))
            return Unexpected(Error(Reason::closed, ""));
        const detail::Padded<Size> padded(value);
        if (write(padded.bytes, static_cast<std::uint32_t>(size)) !=
            static_cast<std::int32_t>(size))
            return Unexpected(
                detail::write_failure(owned_.tag, detail::type_of<T>(), size, function));
        return {};
    }

    template <class Write>
    Result<void> store_view(const char *value, std::size_t size, const char *function, Write write)
    {
        if (!owned_.tag)
            return Unexpected(Error(Reason::closed, ""));
        if (size == 0)
            return Unexpected(Error(Reason::empty_value, topic()));
        if (size > owned_.most())
            return Unexpected(
                detail::size_failure(Reason::too_large, topic(), size, owned_.most()));
        if (size < 8) {
            char padded[8] = {};
            std::memcpy(padded, value, size);
            return store_checked(padded, size, function, write);
        }
        return store_checked(value, size, function, write);
    }

    template <class Write>
    Result<void> store_checked(const char *value, std::size_t size, const char *function,
                               Write write)
    {
        if (write(value, static_cast<std::uint32_t>(size)) != static_cast<std::int32_t>(size))
            return Unexpected(
                detail::write_failure(owned_.tag, detail::type_of<T>(), size, function));
        return {};
    }

    detail::OwnedTag owned_;
};

namespace detail {

// Where a consumer of views keeps the bytes that they show.
template <bool IsView> struct Room {
    std::byte *bytes() noexcept
    {
        return nullptr;
    }
    bool make_room() noexcept
    {
        return true;
    }
};
template <> struct Room<true> {
    std::byte *bytes() noexcept
    {
        return bytes_.get();
    }
    bool make_room() noexcept
    {
        bytes_.reset(new (std::nothrow) std::byte[KP_MAX_VALUE_SIZE]);
        return bytes_ != nullptr;
    }

  private:
    std::unique_ptr<std::byte[]> bytes_;
};

} // namespace detail

/**
 * Reads a topic. A view that it gives (std::string_view, std::span) shows the consumer's own copy
 * and holds until the next read() or the consumer's end.
 */
template <class T>
class Consumer
    : private detail::Room<std::is_same_v<T, std::string_view> || detail::is_byte_view<T>()> {
  public:
    using value_type = T;

    /** Opens the topic, which need not exist yet. The errors are closed and system. */
    static Result<Consumer> open(Node &node, const std::string &topic)
    {
        detail::require_type<T>();
        Consumer made;
        const auto done =
            detail::open_tag(made.owned_, node.state_.get(), topic, false, Type::raw, 0, 0);
        if (!done)
            return Unexpected(done.error());
        if (!made.make_room())
            return Unexpected(detail::system_failure(topic, "kp_tag_consumer_new", ENOMEM));
        return made;
    }

#if KP_HPP_HAS_EXCEPTIONS
    /** Does what open() does, and throws its errors. */
    Consumer(Node &node, const std::string &topic)
    {
        auto made = open(node, topic);
        if (!made)
            throw Failure(made.error());
        *this = *std::move(made);
    }
#endif

    /** Gives the topic; empty when the node is destroyed. */
    std::string_view topic() const noexcept
    {
        return owned_.topic();
    }

    /**
     * Gives the latest value, whole, with what belongs to it. Tries for about a millisecond while
     * writes get in the way. A number that was declared but not written yet is 0 with quality 0.
     * The errors are closed, undeclared, wrong_type, wrong_size, no_value and busy.
     */
    [[gnu::always_inline]] Result<Sample<T>> read()
    {
        return read_by<Care::whole>();
    }

    /** Reads like read() but without the care: a write that begins meanwhile can tear the value. */
    [[gnu::always_inline]] Result<Sample<T>> read_plain()
    {
        return read_by<Care::none>();
    }

    /** Says whether the topic was written since this consumer last read it, with a quality that is
        not 0. */
    bool changed() const noexcept
    {
        return owned_.tag && kp_tag_need_read(owned_.tag) == 1;
    }

    /** Gives the tag, for the functions of kp.h, which must not destroy it. Null when the node is
        destroyed. */
    kp_tag_t *native() const noexcept
    {
        return owned_.tag;
    }

  private:
    static constexpr detail::Form kForm = detail::form_of<T>();
    static constexpr bool kIsView =
        std::is_same_v<T, std::string_view> || detail::is_byte_view<T>();
    static constexpr bool kIsBoolean = std::is_same_v<typename detail::Plain<T>::type, bool>;

    Consumer() = default;

    enum class Care { whole, none };

    template <Care Kind>
    static std::int32_t read_bytes(kp_tag_t *tag, void *buffer, std::uint32_t room,
                                   Sample<T> &sample) noexcept
    {
        if constexpr (Kind == Care::whole)
            return detail::read_consistent(tag, buffer, room, sample);
        else
            return detail::read_plain(tag, buffer, room, sample);
    }

    template <Care Kind> [[gnu::always_inline]] Result<Sample<T>> read_by()
    {
        if constexpr (kForm == detail::Form::fixed || kForm == detail::Form::structure)
            return read_fixed<Kind>();
        else if constexpr (kForm == detail::Form::dynamic)
            return read_dynamic();
        else
            return read_variable<Kind>();
    }

    // Says whether a read can be tried. It is asked before the first read, and before each read
    // after the type was found wrong. A type of variable size has no value at first, and the
    // library would warn of each read.
    [[gnu::cold, gnu::noinline]] bool prepare(Result<Sample<T>> &result) noexcept
    {
        const bool is_ready = owned_.tag && detail::verify_type(owned_, detail::type_of<T>(), 0) &&
                              (kForm == detail::Form::fixed || kp_tag_has_value(owned_.tag) == 1);
        if (!is_ready)
            result = Unexpected(detail::read_failure(owned_.tag, detail::type_of<T>(), -1, 0));
        return is_ready;
    }

    // Says whether what was read is a value of the type. This is looked at once for each write.
    [[gnu::noinline]] bool settle(Result<Sample<T>> &result, std::int32_t got,
                                  std::uint64_t timestamp) noexcept
    {
        constexpr bool is_sized = kForm == detail::Form::fixed || kForm == detail::Form::structure;
        const std::size_t wanted = is_sized ? sizeof(T) : 0;
        const bool is_whole = is_sized ? got == static_cast<std::int32_t>(sizeof(T)) : got > 0;
        if (is_whole && detail::verify_type(owned_, detail::type_of<T>(), timestamp))
            return true;
        owned_.verified = 0;
        result = Unexpected(detail::read_failure(owned_.tag, detail::type_of<T>(), got, wanted));
        return false;
    }

    // The whole function fills one result, and what is rare stands in functions of its own. So it
    // is as fast as the call of the library.
    template <Care Kind> [[gnu::always_inline]] Result<Sample<T>> read_fixed()
    {
        Result<Sample<T>> result;
        Sample<T> &sample = *result;
        if (KP_HPP_UNLIKELY(owned_.verified == 0) && !prepare(result))
            return result;
        std::uint8_t boolean = 0;
        void *place = &boolean;
        if constexpr (!kIsBoolean)
            place = &sample.value;
        const std::int32_t got = read_bytes<Kind>(owned_.tag, place, sizeof(T), sample);
        const std::uint64_t timestamp = detail::microseconds(sample.timestamp);
        if (KP_HPP_UNLIKELY(got != static_cast<std::int32_t>(sizeof(T)) ||
                            timestamp != owned_.verified) &&
            !settle(result, got, timestamp))
            return result;
        if constexpr (kIsBoolean)
            sample.value = static_cast<T>(boolean != 0); // any other byte than 0 is true
        if (!result.has_value())
            __builtin_unreachable(); // spares the caller's test
        return result;
    }

    template <Care Kind> Result<Sample<T>> read_variable()
    {
        std::byte stack[kIsView ? 1 : KP_MAX_VALUE_SIZE];
        std::byte *bytes = kIsView ? this->bytes() : stack;
        Result<Sample<T>> result;
        Sample<T> &sample = *result;
        if (owned_.verified == 0 && !prepare(result))
            return result;
        const std::int32_t got = read_bytes<Kind>(owned_.tag, bytes, KP_MAX_VALUE_SIZE, sample);
        const std::uint64_t timestamp = detail::microseconds(sample.timestamp);
        if ((got <= 0 || timestamp != owned_.verified) && !settle(result, got, timestamp))
            return result;
        const auto size = static_cast<std::size_t>(got);
        if constexpr (kForm == detail::Form::text)
            sample.value = T(reinterpret_cast<const char *>(bytes), size);
        else
            sample.value = T(bytes, bytes + size);
        return result;
    }

    Result<Sample<T>> read_dynamic()
    {
        Result<Sample<T>> result;
        std::uint32_t type = 0;
        const bool is_declared =
            owned_.tag && kp_tag_get_value_info(owned_.tag, &type, nullptr, nullptr) == 0;
        if (is_declared && kp_tag_has_value(owned_.tag) == 0)
            result = Unexpected(Error(Reason::no_value, topic()));
        else if (!is_declared || !detail::read_any(owned_.tag, *result))
            result = Unexpected(detail::read_failure(owned_.tag, static_cast<Type>(type), -1, 0));
        return result;
    }

    detail::OwnedTag owned_;
};

#if KP_HPP_HAS_EXCEPTIONS
template <class T> Provider<T> Node::provide(const std::string &topic, Declaration declaration)
{
    return Provider<T>(*this, topic, declaration);
}

template <class T> Consumer<T> Node::consume(const std::string &topic)
{
    return Consumer<T>(*this, topic);
}
#else
template <class T> Provider<T> Node::provide(const std::string &, Declaration)
{
    static_assert(
        detail::always_false<T>,
        "kp: without exceptions a provider is made by kp::Provider<T>::open(node, topic)");
}

template <class T> Consumer<T> Node::consume(const std::string &)
{
    static_assert(
        detail::always_false<T>,
        "kp: without exceptions a consumer is made by kp::Consumer<T>::open(node, topic)");
}
#endif

} // namespace KP_HPP_SETTINGS
} // namespace kp

#undef KP_HPP_UNLIKELY

#endif
