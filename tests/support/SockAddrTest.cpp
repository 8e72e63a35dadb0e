// The set of socket address families.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <vector>

#include "libqbio/sockaddr.h"

TEST(SockAddrFamilies, StartsEmpty) {
    SockAddrFamilies set;
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.size(), 0u);
    EXPECT_FALSE(set.contains(static_cast<sa_family_t>(AF_INET)));
}

TEST(SockAddrFamilies, AddHoldsEachFamilyOnce) {
    SockAddrFamilies set;
    EXPECT_TRUE(set.add(AF_INET));
    EXPECT_TRUE(set.add(AF_INET6));
    EXPECT_FALSE(set.add(AF_INET));
    EXPECT_EQ(set.size(), 2u);
    EXPECT_TRUE(set.contains(static_cast<sa_family_t>(AF_INET)));
    EXPECT_TRUE(set.contains(static_cast<sa_family_t>(AF_INET6)));
    EXPECT_FALSE(set.contains(static_cast<sa_family_t>(AF_UNIX)));
}

TEST(SockAddrFamilies, RemoveReportsWhetherPresent) {
    SockAddrFamilies set{AF_INET, AF_UNIX};
    EXPECT_TRUE(set.remove(AF_INET));
    EXPECT_FALSE(set.remove(AF_INET));
    EXPECT_FALSE(set.remove(AF_INET6));
    EXPECT_EQ(set.size(), 1u);
    EXPECT_TRUE(set.contains(static_cast<sa_family_t>(AF_UNIX)));
}

TEST(SockAddrFamilies, ListIsAscending) {
    SockAddrFamilies set{AF_INET6, AF_UNIX, AF_INET, AF_INET6};
    // AF_UNIX 1, AF_INET 2, AF_INET6 10 on Linux.
    const std::vector<sa_family_t> expected{1, 2, 10};
    EXPECT_EQ(set.list(), expected);
}

TEST(SockAddrFamilies, ContainsAddressByItsFamilyField) {
    SockAddrFamilies set{AF_INET};
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_TRUE(set.contains(reinterpret_cast<const sockaddr*>(&v4)));
    EXPECT_FALSE(set.contains(reinterpret_cast<const sockaddr*>(&local)));
    EXPECT_FALSE(set.contains(static_cast<const sockaddr*>(nullptr)));
}

TEST(SockAddrFamilies, ClearAndCompare) {
    SockAddrFamilies a{AF_INET, AF_INET6};
    SockAddrFamilies b;
    EXPECT_NE(a, b);
    b.add(AF_INET6);
    b.add(AF_INET);
    EXPECT_EQ(a, b);
    a.clear();
    EXPECT_TRUE(a.empty());
    EXPECT_NE(a, b);
}
