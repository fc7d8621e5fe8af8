#include "http/guard.h"

#include <gtest/gtest.h>

using kp::web::Guard;

namespace {

TEST(Guard, KnowsTheLoopbackAndTheNamesThatItIsGiven)
{
    const Guard guard({"press-7.example"});

    for (const char *host : {"localhost", "LocalHost:80", "127.0.0.1:8420", "[::1]:8420", "[::1]",
                             "press-7.example:443", "PRESS-7.example"})
        EXPECT_TRUE(guard.is_own_host(host)) << host;
}

TEST(Guard, RefusesOtherNamesAndWhatIsNone)
{
    const Guard guard({"press-7.example"});

    for (const char *host :
         {"", ":80", "evil.example", "localhost.evil.example", "localhost:80:80", "localhost:80a",
          "[::1", "[::1]x", "[::2]", "127.0.0.1.evil.example", "localhost evil"})
        EXPECT_FALSE(guard.is_own_host(host)) << host;
}

TEST(Guard, TakesOnlyTheOriginOfTheHostThatIsAsked)
{
    EXPECT_TRUE(Guard::is_same_origin("http://localhost:8420", "localhost:8420"));
    EXPECT_TRUE(Guard::is_same_origin("https://Press-7.example", "press-7.example"));
    for (const char *origin : {"null", "http://localhost", "http://evil.example:8420",
                               "http://localhost:8420.evil", "file://", "http://"})
        EXPECT_FALSE(Guard::is_same_origin(origin, "localhost:8420")) << origin;
}

} // namespace
