// The keeper's look at the gateway's list of services.
#include "keeper/service_list.h"

#include <gtest/gtest.h>

using namespace keeper;

namespace {

constexpr char LIST[] = R"([{"type":"SSH","name":"ssh_localhost","ip":"127.0.0.1","port":22},
    {"type":"SSH","name":"ssh_hostmachine","ip":"172.17.0.1","port":22},
    {"type":"HTTP","name":"broken","ip":"127.0.0.1","port":"80"},
    {"type":"HTTP","name":"far","ip":"127.0.0.1","port":70000}, 7,
    {"type":"KEEPER","name":"keeper","ip":"127.0.0.1","port":4622}])";

TEST(ServiceListTest, ReachesWhatIsListedAndNothingElse)
{
    const auto services = parseServices(LIST);
    ASSERT_EQ(3U, services.size());
    const KEPT_SERVICE_T ssh{"SSH", "ssh_localhost", "127.0.0.1", 22};
    EXPECT_TRUE(isListed(services, ssh, ""));
    for (const KEPT_SERVICE_T &other : {KEPT_SERVICE_T{"SSH", "ssh_localhost", "127.0.0.1", 23},
                                        KEPT_SERVICE_T{"SSH", "ssh_localhost", "10.0.0.1", 22},
                                        KEPT_SERVICE_T{"HTTP", "ssh_localhost", "127.0.0.1", 22},
                                        KEPT_SERVICE_T{"KEEPER", "keeper", "127.0.0.1", 4622}})
        EXPECT_FALSE(isListed(services, other, "10.0.0.1")) << other.name << other.port;
}

// The daemon may announce the machine that hosts the gateway by another address than the list's.
TEST(ServiceListTest, TheHostsServicesMayHaveTheHostsAddress)
{
    const auto services = parseServices(LIST);
    const KEPT_SERVICE_T host{"SSH", "ssh_hostmachine", "10.0.0.1", 22};
    EXPECT_TRUE(isListed(services, host, "10.0.0.1"));
    EXPECT_FALSE(isListed(services, host, "10.0.0.2"));
    EXPECT_FALSE(isListed(services, host, ""));
}

TEST(ServiceListTest, FindsItsOwnEntryAndRefusesWhatIsNoList)
{
    EXPECT_EQ(4622, ownEntry(parseServices(LIST))->port);
    EXPECT_FALSE(ownEntry(parseServices("[]")));
    EXPECT_THROW(parseServices("{}"), std::runtime_error);
    EXPECT_THROW(parseServices(""), std::runtime_error);
    EXPECT_THROW(readServices("/nonexistent"), std::runtime_error);
}

} // namespace
