#include "devgateway/config_manager/config_store.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

class ConfigStore : public ::testing::Test {
protected:
    void SetUp() override
    {
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
    std::string value(const char *key) const
    {
        const std::string *const found = find_config_value(store_, key);
        return found != nullptr ? *found : "(not set)";
    }

    const std::string directory_ =
        ::testing::TempDir() + "config_store." + std::to_string(::getpid());
    const std::string path_ = directory_ + "/gateway.conf";
    CONFIG_STORE_T store_;
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
    fs::permissions(path_, fs::perms{0640});
    const std::string link = directory_ + "/link.conf";
    fs::create_symlink(path_, link);
    std::ofstream{path_ + ".new"} << "left behind by a crash";
    ASSERT_EQ(load_config_store(store_, link), 0);
    EXPECT_EQ(value("name"), "gw-1");
    EXPECT_EQ(value("secret"), "s = 1 ");
    EXPECT_EQ(value("nam"), "(not set)");
    EXPECT_EQ(set_config_value(store_, "name", "gw \xc3\xa4=2"), STORE_CHANGED);
    EXPECT_EQ(set_config_value(store_, "fresh", ""), STORE_CHANGED);
    EXPECT_EQ(read(),
              "# device\nname=gw \xc3\xa4=2\n\nbad line\nsecret=s = 1 \nname=again\nfresh=\n");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms{0640});
    fs::remove(path_);
    EXPECT_EQ(set_config_value(store_, "fresh", ""), STORE_UNCHANGED);
    EXPECT_FALSE(fs::exists(path_)); // it was not written
}

TEST_F(ConfigStore, RefusesWhatIsNoKeyOrNoValue)
{
    ASSERT_EQ(load_config_store(store_, path_), 0);
    EXPECT_EQ(set_config_value(store_, "x\nadmin", "1"), STORE_REFUSED);
    EXPECT_EQ(set_config_value(store_, "a=b", "1"), STORE_REFUSED);
    EXPECT_EQ(set_config_value(store_, "key", "1\nadmin=1"), STORE_REFUSED);
    EXPECT_EQ(set_config_value(store_, "key", "\xff"), STORE_REFUSED);
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_EQ(set_config_value(store_, "key", "1"), STORE_CHANGED);
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms{0600});
}

TEST_F(ConfigStore, KeepsTheOldValueWhenTheFileCannotBeWritten)
{
    write("a=1\n");
    ASSERT_EQ(load_config_store(store_, path_), 0);
    fs::create_directories(path_ + ".new/in_the_way");
    EXPECT_EQ(set_config_value(store_, "a", "2"), STORE_FAILED);
    EXPECT_EQ(set_config_value(store_, "b", "2"), STORE_FAILED);
    EXPECT_EQ(value("a"), "1");
    EXPECT_EQ(value("b"), "(not set)");
    fs::remove_all(path_ + ".new");
    EXPECT_EQ(set_config_value(store_, "b", "3"), STORE_CHANGED);
    EXPECT_EQ(read(), "a=1\nb=3\n");
}

TEST_F(ConfigStore, BoundsTheFile)
{
    write(std::string(CONFIG_FILE_MAX - 4, '#') + "\na=1");
    ASSERT_EQ(load_config_store(store_, path_), 0);
    EXPECT_EQ(set_config_value(store_, "a", "12"), STORE_REFUSED);
    EXPECT_EQ(value("a"), "1");
    write(std::string(CONFIG_FILE_MAX + 1, '#'));
    EXPECT_EQ(load_config_store(store_, path_), -1);
    EXPECT_EQ(load_config_store(store_, directory_), -1);
}

} // namespace
