#include "http/target.h"

#include <gtest/gtest.h>

using kp::web::parse_target;

namespace {

TEST(Target, HasAPathAndAQuery)
{
    const auto target = parse_target("/tags/a%2Fb%20c?q=plant/%23&q=+/b&rate=5");

    ASSERT_TRUE(target);
    EXPECT_EQ(target.value->path, "/tags/a/b c");
    EXPECT_EQ(target.value->all("q"), (std::vector<std::string>{"plant/#", "+/b"}));
    EXPECT_EQ(*target.value->last("rate"), "5");
    EXPECT_EQ(target.value->last("x"), nullptr);
}

TEST(Target, KeepsBytesThatAreNoText)
{
    const auto target = parse_target("/tags/%FF%1b");

    ASSERT_TRUE(target);
    EXPECT_EQ(target.value->path, "/tags/\xff\x1b");
}

TEST(Target, RefusesBrokenEscapesZeroBytesAndOtherForms)
{
    EXPECT_EQ(parse_target("/a%2").problem, "the path has a broken percent escape");
    EXPECT_EQ(parse_target("/a%zz").problem, "the path has a broken percent escape");
    EXPECT_EQ(parse_target("/a%00").problem, "the path has a broken percent escape");
    EXPECT_EQ(parse_target("/a?q=%").problem, "the query has a broken percent escape");
    EXPECT_EQ(parse_target("http://a/").problem, "the target must begin with a slash");
    EXPECT_EQ(parse_target("").problem, "the target must begin with a slash");
}

TEST(Target, TakesAnEmptyQueryAndNamesWithoutValues)
{
    const auto target = parse_target("/?&&q&x=");

    ASSERT_TRUE(target);
    EXPECT_EQ(target.value->all("q"), std::vector<std::string>{""});
    EXPECT_EQ(target.value->query.size(), 2U);
}

} // namespace
