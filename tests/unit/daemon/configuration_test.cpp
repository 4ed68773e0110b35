#include "src/config.h"
#include "src/default_cert.h"
#include "src/product_identity.h"
#include "tests/support/fake_config_manager.h"
#include "tests/support/fake_files.h"
#include "tests/support/fake_logger.h"
#include "utility/install_root.h"
#include "utility/text.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using testing::EndsWith;
using testing::HasSubstr;

class Configuration : public testing::Test {
protected:
    void SetUp() override
    {
        g_fake_files.clear();
        fake_logger::take();
        fake_config_manager = {{{"gw_system_productkey", "pk1"},
                                {"gw_system_devicename", "dev1"},
                                {"gw_system_devicesecret", "secret1"}},
                               "",
                               ""};
    }
    int read()
    {
        return getConfigParamsTask(nullptr, &record, bus);
    }
    // The lines behind those of the identity.
    static std::string rest()
    {
        const std::string log = fake_logger::take(0);
        return log.substr(std::min(log.size(), log.find("secre***************|") + 21));
    }
    std::string numbers() const
    {
        std::string text;
        for (const std::int32_t number :
             {record.tls_type, record.debug_switch.load(), record.trans_timeout.load(),
              record.cloud_long_connection.load(), record.tcp_keepalive_period, record.ping_period,
              record.remote_access_switch.load()})
            text += std::to_string(number) + " ";
        return text;
    }

    DBusConnection *const bus = reinterpret_cast<DBusConnection *>(this); // only handed on
    REMOTE_ACCESS_CONFIG_T record{};
};

} // namespace

TEST_F(Configuration, ReadsEveryKeyInOrderAndLogsItsValue)
{
    auto &values = fake_config_manager.values;
    values["gw_remoteaccess_cert_path"] = "/ca.pem";
    values["gw_remoteaccess_cloud_host"] = "cloud.example";
    values["gw_remoteaccess_cloud_port"] = "8443";
    values["gw_remoteaccess_tls_type"] = "2";
    values["gw_remoteaccess_debug_switch"] = "1";
    values["gw_remoteaccess_trans_timeout"] = "250ms";
    values["gw_system_cloud_long_connection"] = "0";
    values["gw_remoteaccess_tcp_keepalive_period"] = "-7";
    values["gw_remoteaccess_ping_period"] = "none";
    EXPECT_EQ(0, read());
    EXPECT_EQ(
        "1 getConfigParams start !|1 gw_system_productkey : pk1|1 gw_system_devicename : dev1|"
        "1 gw_system_devicesecret : secre***************|"
        "1 gw_remoteaccess_cert_path : /ca.pem|1 gw_remoteaccess_cloud_host : cloud.example|"
        "1 gw_remoteaccess_cloud_port : 8443|1 gw_remoteaccess_tls_type : 2|"
        "1 gw_remoteaccess_debug_switch : 1|1 gw_remoteaccess_trans_timeout : 250ms|"
        "1 cloud long connection:0|1 gw_remoteaccess_tcp_keepalive_period : -7|"
        "1 gw_remoteaccess_ping_period : none",
        fake_logger::take(0));
    EXPECT_EQ("getConfigParams", fake_logger::owners());
    EXPECT_EQ("gw_system_productkey 1000 gw_system_devicename 1000 gw_system_devicesecret 1000 "
              "gw_remoteaccess_cert_path 1000 gw_remoteaccess_cloud_host 1000 "
              "gw_remoteaccess_cloud_port 1000 gw_remoteaccess_tls_type 1000 "
              "gw_remoteaccess_debug_switch 1000 gw_remoteaccess_trans_timeout 1000 "
              "gw_system_cloud_long_connection 1000 gw_remoteaccess_tcp_keepalive_period 1000 "
              "gw_remoteaccess_ping_period 1000 "
              "iot.gateway.remote_access_daemon gw_remoteaccess_debug_switch 1 1000 "
              "iot.gateway.remote_access_daemon gw_remoteaccess_trans_timeout 1 1000 ",
              fake_config_manager.calls);
    EXPECT_EQ("2 1 250 0 -7 0 1 ", numbers()); // without a long connection the switch starts open
    for (const auto &[field, text] :
         {std::pair{record.device_secret, "secret1"},
          {record.cert_path, "/ca.pem"},
          {record.cloud_host, "cloud.example"},
          {record.cloud_port, "8443"},
          {record.topic_debug_switch, "/sys/pk1/dev1/edge/debug/switch"},
          {record.topic_ability_post, "/sys/pk1/dev1/edge/ability/post"},
          {record.topic_ability_get, "/sys/pk1/dev1/edge/ability/get"}})
        EXPECT_STREQ(text, field);
    char topic[TOPIC_SIZE];
    copyCloudTopic(record.topic_ability_post_reply, topic);
    EXPECT_STREQ("/sys/pk1/dev1/edge/ability/post_reply", topic);
}

TEST_F(Configuration, KeepsEachFieldsLongestText)
{
    const std::string text(200, 'x');
    const std::pair<const char *, std::size_t> rows[] = {
        {"gw_system_productkey", 36},        {"gw_system_devicename", 36},
        {"gw_system_devicesecret", 68},      {"gw_remoteaccess_cert_path", 68},
        {"gw_remoteaccess_cloud_host", 135}, {"gw_remoteaccess_cloud_port", 15}};
    const char *const fields[] = {record.product_key, record.device_name, record.device_secret,
                                  record.cert_path,   record.cloud_host,  record.cloud_port};
    for (const auto &[key, keep] : rows)
        fake_config_manager.values[key] = text;
    fake_config_manager.values["gw_remoteaccess_tls_type"] = "0000000000012";           // 12
    fake_config_manager.values["gw_system_cloud_long_connection"] = "0000000000000012"; // 15
    fake_config_manager.values["gw_remoteaccess_ping_period"] = "99999999999"; // low 32 bits
    EXPECT_EQ(0, read());
    for (std::size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(text.substr(0, rows[i].second), fields[i]) << rows[i].first;
    EXPECT_EQ("1 0 2000 1 5 1215752191 0 ", numbers());
    EXPECT_EQ("/sys/" + text.substr(0, 36) + "/" + text.substr(0, 36) + "/edge/debug/switch",
              record.topic_debug_switch);
    const std::string log = fake_logger::take(0);
    EXPECT_THAT(log, HasSubstr("|1 gw_system_productkey : " + text + "|")); // all of it
    EXPECT_THAT(log, HasSubstr("|1 gw_system_devicesecret : xxxxx***************|"));
}

TEST_F(Configuration, AttemptEndsAtWhatCannotBeDoneWithout)
{
    const struct {
        const char *missing, *unsubscribed, *line, *last_call, *topic, *secret;
    } rows[] = {
        {"gw_system_productkey", "", "2 can not get PK, result:1", "productkey 1000 ", "", "old"},
        {"gw_system_devicename", "", "2 can not get DN, result:1", "devicename 1000 ", "", "old"},
        {"gw_system_devicesecret", "", "2 can not get DS, result:1", "devicesecret 1000 ",
         "/sys/pk1/dev1/edge/debug/switch", ""},
        {"", "gw_remoteaccess_debug_switch", "2 subscribe module config debug log switch error!",
         "debug_switch 1 1000 ", "/sys/pk1/dev1/edge/debug/switch", "secret1"},
        {"", "gw_remoteaccess_trans_timeout", "2 subscribe module config transtimeout error!",
         "trans_timeout 1 1000 ", "/sys/pk1/dev1/edge/debug/switch", "secret1"},
    };
    for (const auto &row : rows) {
        SetUp();
        g_fake_files["brimlock_remote_access.pem"] = "";
        fake_config_manager.values.erase(row.missing);
        fake_config_manager.refused_subscription = row.unsubscribed;
        copy_text(record.product_key, "old");
        copy_text(record.device_secret, "old");
        copy_text(record.topic_debug_switch, "");
        EXPECT_EQ(-1, read());
        EXPECT_EQ(row.line, fake_logger::take(2));
        EXPECT_EQ("getConfigParams", fake_logger::owners());
        EXPECT_THAT(fake_config_manager.calls, EndsWith(row.last_call));
        EXPECT_STREQ(row.topic, record.topic_debug_switch);
        EXPECT_STREQ(row.secret, record.device_secret);
        EXPECT_STRNE("old", record.product_key);
    }
    SetUp();
    g_fake_files.clear();
    EXPECT_EQ(-1, read());
    EXPECT_EQ("1 can not get cert path,using default value, result:1|"
              "2 can not write root cert path",
              rest());
    EXPECT_EQ(-1, getConfigParams(&record, nullptr));
    EXPECT_EQ("1 getConfigParams start !|2 dbus connection is NULL", fake_logger::take(0));
}

TEST(ProductFiles, EditionIsTheSecondWord)
{
    char root[INSTALL_ROOT_SIZE] = "";
    ASSERT_EQ(0, getInstallRootPath(root));
    EXPECT_EQ(1, getInstallRootPath(nullptr));
    const std::string path = std::string{root} + "/SPECIFICATION";
    const std::pair<std::string, std::int32_t> rows[] = {
        {"product professional", EDITION_PROFESSIONAL},
        {"a\n\tprofessionals b", EDITION_PROFESSIONAL},
        {"a standardized", EDITION_STANDARD},
        {"professional Standard", EDITION_UNKNOWN},
        {std::string(63, 'a') + "standard b", EDITION_STANDARD}, // a longer word is two
        {"professional", -1},
        {"", -1}};
    REMOTE_ACCESS_CONFIG_T record{};
    for (const auto &[text, edition] : rows) {
        g_fake_files["SPECIFICATION"] = text;
        record.edition = 7;
        EXPECT_EQ(edition < 0 ? -1 : 0, getBrimLockEdition(&record)) << text;
        EXPECT_EQ(std::max(edition, 0), record.edition) << text;
        EXPECT_EQ("0 specification path : " + path, fake_logger::take(0));
    }
    g_fake_files.clear();
    EXPECT_EQ(-1, getBrimLockEdition(&record));
    EXPECT_EQ("0 specification path : " + path + "|2 no " + path + " file, ", fake_logger::take(0));

    getBrimLockVersion(&record);
    EXPECT_THAT(fake_logger::take(0), EndsWith("/VERSION|2 BrimLock version file is not exist.\n"));
    for (const std::string text : {"", "1.2.3\n", "1234567890123456789012345678901234567890"}) {
        g_fake_files["VERSION"] = text;
        getBrimLockVersion(&record);
        EXPECT_EQ(text.substr(0, 36), record.version);
        EXPECT_EQ("1 version path : " + std::string{root} + "/VERSION", fake_logger::take(0));
    }
}

TEST(ProductFiles, DefaultCertificateIsWrittenOnceAndWhole)
{
    const std::string path = testing::TempDir() + "daemon_test." + std::to_string(::getpid());
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{100, before.rlim_max}; // as a full disk would do
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &small));
    EXPECT_EQ(-1, writeDefaultCert(path.c_str()));
    ::setrlimit(RLIMIT_FSIZE, &before);
    (void)::signal(SIGXFSZ, handler);
    EXPECT_EQ("3 failed to create ca file", fake_logger::take(0));
    EXPECT_EQ(0, writeDefaultCert(path.c_str())); // what was written stays, and is not looked at
    EXPECT_EQ("1 ca root file already exsited:  " + path + ".", fake_logger::take(0));
    EXPECT_EQ(100U, std::filesystem::file_size(path));
    EXPECT_EQ(-1, writeDefaultCert((path + "/x").c_str()));
    EXPECT_EQ("", fake_logger::take(0));
    std::filesystem::remove(path);

    EXPECT_EQ(0, writeDefaultCert(path.c_str()));
    EXPECT_EQ(std::string{"1 create ca root file done:  "} + DEFAULT_CERT_PATH + ".",
              fake_logger::take(0));
    std::filesystem::remove(path);
}
