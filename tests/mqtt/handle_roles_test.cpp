#include "providers/handle_roles.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

namespace {

constexpr ProcessId kA{1, 10};
constexpr ProcessId kB{2, 20};
constexpr ProcessId kC{3, 30};
constexpr ino_t kFile = 7;

class Roles {
  public:
    // Providers and consumers that are counted, and who is there with one handle each.
    void look(uint32_t providers, uint32_t consumers, const std::vector<ProcessId> &processes)
    {
        std::vector<Holder> open;
        for (const ProcessId &process : processes)
            open.push_back({process, 1});
        roles_.learn(kFile, {providers, consumers}, open);
    }
    bool are_lost(Sight sight = Sight::full) const
    {
        return roles_.providers_are_lost(sight);
    }

  private:
    HandleRoles roles_;
};

} // namespace

TEST(HandleRoles, SayThatAProviderIsLostWhenNobodyIsLeft)
{
    Roles roles;
    roles.look(1, 0, {kA});
    EXPECT_FALSE(roles.are_lost());

    roles.look(1, 0, {});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, SayItOfAProviderThatWasLostBeforeTheFirstLook)
{
    Roles roles;
    roles.look(2, 1, {});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, KeepATopicWhoseOtherProviderLives)
{
    Roles roles;
    roles.look(2, 0, {kA, kB});

    roles.look(2, 0, {kB});

    EXPECT_FALSE(roles.are_lost());
}

TEST(HandleRoles, KnowTheConsumerThatCameAfterTheProvider)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 1, {kA, kB});

    roles.look(1, 1, {kB});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, KnowTheConsumerThatWaitedForTheProvider)
{
    Roles roles;
    roles.look(0, 1, {kB});
    roles.look(1, 1, {kA, kB});

    roles.look(1, 1, {kB});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, KnowTheProviderThatIsLeftByItsConsumer)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 1, {kA, kB});

    roles.look(1, 1, {kA});

    EXPECT_FALSE(roles.are_lost());
}

TEST(HandleRoles, DoNotGuessWhoIsLeftOfTwoThatWereThereFromTheStart)
{
    Roles roles;
    roles.look(1, 1, {kA, kB});

    roles.look(1, 1, {kB});

    EXPECT_FALSE(roles.are_lost());
}

TEST(HandleRoles, SayItAfterAllWhenTheLastOfThoseHasEnded)
{
    Roles roles;
    roles.look(1, 1, {kA, kB});
    roles.look(1, 1, {kB});

    roles.look(1, 1, {});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, FollowAProviderThatComesBackAndIsKilledAgain)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 1, {kA, kB});
    roles.look(1, 1, {kB});
    roles.look(2, 1, {kB, kC});
    EXPECT_FALSE(roles.are_lost());

    roles.look(2, 1, {kB});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, FollowAProviderThatIsRestartedInOrder)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 1, {kA, kB});
    roles.look(1, 1, {kB, kC});
    EXPECT_FALSE(roles.are_lost());

    roles.look(1, 1, {kB});

    EXPECT_TRUE(roles.are_lost());
}

TEST(HandleRoles, TakeAnInheritedMappingForAProviders)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 0, {kA, kB});

    roles.look(1, 0, {kB});

    EXPECT_FALSE(roles.are_lost());
}

TEST(HandleRoles, ForgetWhoWasWhoWhenOneClosesWhileAnotherEnds)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 1, {kA, kB});
    roles.look(1, 2, {kA, kB, kC});

    roles.look(1, 1, {kC}); // either of A and B has closed

    EXPECT_FALSE(roles.are_lost());
}

TEST(HandleRoles, StartAnewWithAFileThatWasMadeAnew)
{
    HandleRoles roles;
    roles.learn(kFile, {1, 0}, {{kA, 1}});
    roles.learn(kFile, {1, 1}, {{kA, 1}, {kB, 1}});

    roles.learn(kFile + 1, {1, 1}, {{kA, 1}, {kB, 1}});
    roles.learn(kFile + 1, {1, 1}, {{kB, 1}});

    EXPECT_FALSE(roles.providers_are_lost(Sight::full));
}

TEST(HandleRoles, KnowAProcessThatOpensTheTopicTwice)
{
    HandleRoles roles;
    roles.learn(kFile, {1, 0}, {{kA, 1}});
    roles.learn(kFile, {1, 1}, {{kA, 2}});

    EXPECT_FALSE(roles.providers_are_lost(Sight::full));
    roles.learn(kFile, {1, 1}, {});
    EXPECT_TRUE(roles.providers_are_lost(Sight::full));
}

TEST(HandleRoles, SayNothingWhereProcessesAreHidden)
{
    Roles roles;
    roles.look(1, 0, {kA});
    roles.look(1, 0, {});

    EXPECT_FALSE(roles.are_lost(Sight::partial));
    EXPECT_TRUE(roles.are_lost(Sight::trusted));
}

TEST(HandleRoles, TrustOnlyWhatWasAllInSight)
{
    Roles roles;
    roles.look(1, 1, {kB});
    roles.look(1, 1, {});

    EXPECT_FALSE(roles.are_lost(Sight::trusted));
}
