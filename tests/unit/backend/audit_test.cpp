#include "backend/observe/audit.h"

#include <csignal>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace backend;

static void limitFiles(rlim_t size)
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST(Audit, LineAfterOneThatFoundNoRoomStandsAlone)
{
    const std::string path = testing::TempDir() + "audit-" + std::to_string(getpid());
    openAudit(path);
    (void)signal(SIGXFSZ, SIG_IGN);
    limitFiles(20);
    auditRefusal("first", "dev1", "ssh", "");
    limitFiles(RLIM_INFINITY);
    auditRefusal("second", "dev1", "ssh", "");
    openAudit("-");
    std::ifstream file(path);
    std::string torn, whole, none;
    std::getline(file, torn);
    std::getline(file, whole);
    EXPECT_EQ(torn.size(), 20U);
    EXPECT_TRUE(whole.starts_with("{\"ended\"") && whole.ends_with("}")) << whole;
    EXPECT_FALSE(std::getline(file, none));
    unlink(path.c_str());
}
