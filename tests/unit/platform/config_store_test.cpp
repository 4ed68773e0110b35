#include "gateway/config_manager/config_store.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

class ConfigStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(directory_);
        fs::create_directories(directory_);
    }
    void TearDown() override
    {
        fs::remove_all(directory_);
    }

    void write(const std::string &content) const
    {
        std::ofstream{path_} << content;
    }
    std::string read() const
    {
        std::ostringstream content;
        content << std::ifstream{path_}.rdbuf();
        return content.str();
    }
    static std::string value(const CONFIG_STORE_T &store, const char *key)
    {
        const std::string *const found = find_config_value(store, key);
        return found != nullptr ? *found : "(not set)";
    }

    const std::string directory_ = ::testing::TempDir() + "config_store_test";
    const std::string path_ = directory_ + "/gateway.conf";
};

TEST_F(ConfigStore, SkipsBadLines)
{
    const struct {
        std::string content;
        int skipped;
        std::size_t keys;
    } rows[] = {
        {"", 0, 0},
        {"a=1\n_.-Z9= two = 2 \n\n  # c=3\n\t\r\nd=", 0, 3},
        {"no separator\n=value\nblank key=1\nk\xc3\xa4y=1\n", 4, 0},
        {"a=1\na=2\n", 1, 1},
        {"a=\xff\nb=" + std::string("\0", 1) + "\n", 2, 0},
        {std::string(128, 'k') + "=1\n" + std::string(129, 'k') + "=1\n", 1, 1},
        {"a=" + std::string(65536, 'v') + "\nb=" + std::string(65537, 'v') + "\n", 1, 1},
    };
    for (const auto &row : rows) {
        CONFIG_STORE_T store;
        EXPECT_EQ(parse_config_lines(store, row.content), row.skipped) << row.content.substr(0, 80);
        EXPECT_EQ(store.places.size(), row.keys) << row.content.substr(0, 80);
    }
}

TEST_F(ConfigStore, KeepsCommentsAndBadLinesAroundAChange)
{
    write("# device\nname=gw-1\n\nbad line\nsecret=s = 1 \nname=again");
    ASSERT_EQ(::chmod(path_.c_str(), 0640), 0);
    const std::string link = directory_ + "/link.conf";
    fs::create_symlink(path_, link);
    CONFIG_STORE_T store;
    ASSERT_EQ(load_config_store(store, link), 0);
    EXPECT_EQ(value(store, "name"), "gw-1");
    EXPECT_EQ(value(store, "secret"), "s = 1 ");
    EXPECT_EQ(value(store, "nam"), "(not set)");
    EXPECT_EQ(set_config_value(store, "name", "gw \xc3\xa4=2"), STORE_CHANGED);
    EXPECT_EQ(set_config_value(store, "fresh", ""), STORE_CHANGED);
    const char *const expected =
        "# device\nname=gw \xc3\xa4=2\n\nbad line\nsecret=s = 1 \nname=again\nfresh=\n";
    EXPECT_EQ(read(), expected);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_FALSE(fs::exists(path_ + ".new"));
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);

    CONFIG_STORE_T again;
    ASSERT_EQ(load_config_store(again, path_), 0);
    EXPECT_EQ(value(again, "name"), "gw \xc3\xa4=2");
    EXPECT_EQ(value(again, "fresh"), "");
    EXPECT_EQ(set_config_value(again, "fresh", ""), STORE_UNCHANGED);
    struct stat unchanged {};
    ASSERT_EQ(::stat(path_.c_str(), &unchanged), 0);
    EXPECT_EQ(unchanged.st_ino, status.st_ino);
}

TEST_F(ConfigStore, RefusesWhatIsNoKeyOrNoValue)
{
    CONFIG_STORE_T store;
    ASSERT_EQ(load_config_store(store, path_), 0);
    const std::string forged = "x\nadmin=1";
    for (const std::string &key : {std::string{}, std::string{"a b"}, std::string{"a=b"}, forged,
                                   std::string{"#a"}, std::string(129, 'k')}) {
        EXPECT_EQ(set_config_value(store, key, "1"), STORE_REFUSED) << key;
    }
    for (const std::string &bad :
         {forged, std::string{"\xff"}, std::string(1, '\0'), std::string(65537, 'v')}) {
        EXPECT_EQ(set_config_value(store, "key", bad), STORE_REFUSED) << bad.substr(0, 20);
    }
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_EQ(set_config_value(store, "key", "1"), STORE_CHANGED);
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(ConfigStore, KeepsTheOldValueWhenTheFileCannotBeWritten)
{
    write("a=1\n");
    CONFIG_STORE_T store;
    ASSERT_EQ(load_config_store(store, path_), 0);
    fs::create_directories(path_ + ".new/in_the_way");
    EXPECT_EQ(set_config_value(store, "a", "2"), STORE_FAILED);
    EXPECT_EQ(set_config_value(store, "b", "2"), STORE_FAILED);
    EXPECT_EQ(value(store, "a"), "1");
    EXPECT_EQ(value(store, "b"), "(not set)");
    EXPECT_EQ(read(), "a=1\n");
    fs::remove_all(path_ + ".new");
    EXPECT_EQ(set_config_value(store, "b", "3"), STORE_CHANGED);
    EXPECT_EQ(read(), "a=1\nb=3\n");
}

TEST_F(ConfigStore, BoundsTheFile)
{
    write(std::string(CONFIG_FILE_MAX - 4, '#') + "\na=1");
    CONFIG_STORE_T store;
    ASSERT_EQ(load_config_store(store, path_), 0);
    EXPECT_EQ(set_config_value(store, "a", "12"), STORE_REFUSED);
    EXPECT_EQ(value(store, "a"), "1");
    write(std::string(CONFIG_FILE_MAX + 1, '#'));
    EXPECT_EQ(load_config_store(store, path_), -1);
    EXPECT_EQ(load_config_store(store, directory_), -1);
}

} // namespace
