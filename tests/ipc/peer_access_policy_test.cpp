// The allow-list rule and the reading of peer credentials.
#include "ipc/peer_access_policy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

TEST(PeerAccessPolicyTest, IdListsTakeWholeIdsAndReportTheRest) {
    std::vector<std::string> rejected;
    EXPECT_EQ(PeerAccessPolicy::ParseIdList(" 1000,2000 ,\t3000,,", &rejected),
              (std::set<unsigned int>{1000, 2000, 3000}));
    EXPECT_TRUE(rejected.empty());
    EXPECT_EQ(PeerAccessPolicy::ParseIdList(
                  "shell,-1,+5,4294967295,99999999999,00000000007,4294967294,12a", &rejected),
              (std::set<unsigned int>{4294967294u}));
    EXPECT_EQ(rejected, (std::vector<std::string>{"shell", "-1", "+5", "4294967295", "99999999999",
                                                  "00000000007", "12a"}));
    EXPECT_TRUE(PeerAccessPolicy::ParseIdList("", nullptr).empty());
}

TEST(PeerAccessPolicyTest, PeerCredentialsOfAConnectedSocket) {
    int pair[4];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    std::string who;
    EXPECT_TRUE(PeerAccessPolicy(geteuid(), {}, {}).allowsPeer(pair[0], &who));
    EXPECT_NE(who.find("pid " + std::to_string(getpid()) + " uid " + std::to_string(geteuid())),
              std::string::npos)
        << who;
    if (geteuid() != 0) {
        EXPECT_FALSE(PeerAccessPolicy(geteuid() + 1, {}, {}).allowsPeer(pair[0], &who));
        EXPECT_TRUE(PeerAccessPolicy(geteuid() + 1, {}, {getegid()}).allowsPeer(pair[0], &who));
    }
    // Whatever cannot say who is at the other end is refused.
    ASSERT_EQ(pipe2(pair + 2, O_CLOEXEC), 0);
    EXPECT_FALSE(PeerAccessPolicy(geteuid(), {}, {}).allowsPeer(pair[2], &who));
    EXPECT_NE(who.find("no peer credentials"), std::string::npos) << who;
    for (int fd : pair) close(fd);
}
