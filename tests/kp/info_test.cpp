#include "kp_run.h"

#include "testing/child.h"
#include "testing/segment_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace kptest;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST(KpInfo, ExplainsEveryField)
{
    put_double("a/b", 21.5);

    const Ran ran = kp({"info", "a/b", "--utc"});

    EXPECT_THAT(ran.out,
                MatchesRegex("topic       a/b\n"
                             "type        double \\(10\\)\n"
                             "value       21.5\n"
                             "size        8 of at most 0 bytes\n"
                             "quality     1  \\(good\\)\n"
                             "written     2100-01-01T00:00:00.123456Z  \\(in the future\\)\n"
                             "source      2100-01-01T00:00:00.123456Z  \\(in the future\\)\n"
                             "flags       declared, has a value\n"
                             "extra       0\n"
                             "providers   0\n"
                             "consumers   0\n"
                             "semaphore   -  \\(no handle was opened yet\\)\n"
                             "file        /dev/shm/zu-kp/a/b\n"
                             "inode       [0-9]+\n"
                             "bytes       4080\n"
                             "mode        0644\n"
                             "owner       root:root\n"
                             "mapped by   nobody.*\n"));
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
}

TEST(KpInfo, NamesTheProcessesThatMapTheTopic)
{
    ChildProcess user([](Channel &parent) {
        kp_shm_t *provider = kp_shm_new("a", KP_ROLE_PROVIDER);
        kp_shm_t *consumer = kp_shm_new("a", KP_ROLE_CONSUMER);
        (void)parent.tell("open");
        (void)parent.hear();
        return provider && consumer ? 0 : 1;
    });
    ASSERT_EQ(user.hear(), "open");

    const Ran ran = kp({"info", "a"});

    EXPECT_THAT(ran.out, HasSubstr("mapped by   " + shown(user.pid()) + " (root)  2 open\n"));
    EXPECT_THAT(ran.out, HasSubstr("providers   1\nconsumers   1\n"));
    (void)user.tell("end");
}

TEST(KpInfo, TellsCountsThatNobodyHolds)
{
    put_double("a", 1);
    SegmentFile("a").put_u8(at::provider_refs, 2);
    SegmentFile("a").put_u8(at::consumer_refs, 250);

    EXPECT_THAT(kp({"info", "a"}).out, HasSubstr("providers   2  (more than one provider)\n"
                                                 "consumers   250  (the counts wrap at 256)\n"));
}

TEST(KpInfo, GivesTheSameAsJson)
{
    put_double("a", 1);

    EXPECT_EQ(filtered(kp({"info", "a", "-j"}).out,
                       {"jq", "-c", "[.topic, .file, .bytes, .mode, .owner, .mappers]"}),
              "[\"a\",\"/dev/shm/zu-kp/a\",4080,\"0644\",\"root\",[]]\n");
}

TEST(KpInfo, FailsForWhatIsNoSegment)
{
    SegmentFile("empty").create(0);
    put_double("a/b", 1);

    EXPECT_EQ(kp({"info", "empty"}).code, 4);
    EXPECT_EQ(kp({"info", "a"}).err, "kp: a: not a segment (a directory)\n");
    EXPECT_EQ(kp({"info", "nothing"}).code, 1);
}
