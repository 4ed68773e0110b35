#include "src/config.h"
#include "src/default_route.h"
#include "src/remote_access_local_common.h"
#include "src/request_payload.h"
#include "src/service_catalogue.h"
#include "tests/support/fake_files.h"
#include "tests/support/fake_logger.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

std::string service(const std::string &name)
{
    return R"({"type":"SSH","name":")" + name + R"(","ip":"10.0.0.1","port":22})";
}

class ServiceCatalogue : public testing::Test {
protected:
    void SetUp() override
    {
        g_fake_files.clear();
        list_init(&record.service_list);
    }
    // The entries as "type name ip port|", in list order; forgets them.
    std::string take()
    {
        std::string entries;
        while (record.service_list.next != &record.service_list) {
            SERVICE_INFO_T *const entry =
                container_of(record.service_list.next, SERVICE_INFO_T, list_link);
            entries += std::string{entry->service_type} + " " + entry->service_name + " " +
                       entry->service_ip + " " + std::to_string(entry->service_port) + "|";
            list_del(&entry->list_link);
            delete entry;
            --record.service_count;
        }
        EXPECT_EQ(0U, record.service_count);
        return entries;
    }
    std::string load(const std::string &text)
    {
        g_fake_files["remote_terminal.json"] = text;
        EXPECT_EQ(0, getLocalServiceInfo(&record));
        return take();
    }

    REMOTE_ACCESS_CONFIG_T record{};
};

} // namespace

TEST_F(ServiceCatalogue, SkipsWhatIsNotAService)
{
    const std::string a = "SSH a 10.0.0.1 22|", b = "SSH b 10.0.0.1 22|";
    const struct {
        std::string text, line, entries;
    } rows[] = {
        {service("a"), "", ""}, // not an array
        {"\t[" + service("a") + "]", "", ""},
        {"[{a}," + service("b") + "]", "2 cJSON parse serviceInfo failed", b},
        {"[" + service("a") + "]," + service("b"), "", b + a},
        {"[" + service("a") + service("b") + "]", "", a}, // no comma
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.entries, load(row.text)) << row.text;
        EXPECT_EQ(row.line, fake_logger::take(2)) << row.text;
    }
    EXPECT_EQ(-1, parseServiceInfo(&record, "{}"));
    EXPECT_EQ(0, parseServiceInfo(&record, service("a").c_str()));
    take();
}

TEST_F(ServiceCatalogue, FindsTheFirstEntryThatIsEqualInAllFour)
{
    for (const std::uint32_t port : {22U, 80U, 22U})
        addServiceToList(&record.service_count, &record.service_list, "a", "SSH", "10.0.0.1", port);
    const LIST_LINK_T &list = record.service_list;
    EXPECT_EQ(container_of(list.next, SERVICE_INFO_T, list_link),
              findLocalServiceInfo(&list, {"SSH", "a", "10.0.0.1", 22}));
    for (const NEW_SESSION_REQ_T &other : {NEW_SESSION_REQ_T{"SS", "a", "10.0.0.1", 22},
                                           {"SSH", "ab", "10.0.0.1", 22},
                                           {"SSH", "a", "10.0.0.10", 22},
                                           {"SSH", "a", "10.0.0.1", 23}})
        EXPECT_EQ(nullptr, findLocalServiceInfo(&list, other));
    take();
}

TEST_F(ServiceCatalogue, ReadsOnlyRegularFilesWithContent)
{
    g_fake_files["empty"] = "";
    EXPECT_EQ(nullptr, local_common::_load_cfg_from_json("/brimlock/empty"));
    EXPECT_EQ("2 file: /brimlock/empty is empty", fake_logger::take(0));
    const std::string fifo = testing::TempDir() + "daemon_test." + std::to_string(::getpid());
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600)); // must not be waited for
    for (const char *path : {fifo.c_str(), "/"}) {
        EXPECT_EQ(nullptr, local_common::_load_cfg_from_json(path));
        EXPECT_EQ("2 f", fake_logger::take(0).substr(0, 3)); // which line depends on the system
    }
    ::unlink(fifo.c_str());
    EXPECT_EQ(nullptr, local_common::_load_cfg_from_json(nullptr));
    EXPECT_EQ("", fake_logger::take(0));
}

TEST_F(ServiceCatalogue, HostMachineIsTheFirstDefaultRoute)
{
    const std::string head = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n"
                             "eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\n";
    const std::string fallback = "2 host machine addr get failed,using default ip:172.17.0.1";
    const std::pair<std::string, std::string> rows[] = {
        {head + "eth0\t00000000\t0100A8C0\t0003\neth1\t00000000\t0200A8C0\n",
         "1 host machine addr: 192.168.0.1"},
        {"a 00000000 fe01a8c0 0000", "1 host machine addr: 192.168.1.254"},
        {head + "eth0\t000000000\t0100A8C0\n\n", fallback},
        {"", fallback}};
    char out[HOST_ADDRESS_SIZE] = "unchanged";
    EXPECT_EQ(0, getDefaultGatewayAddr(out)); // there is no table
    EXPECT_STREQ("unchanged", out);
    EXPECT_EQ("", fake_logger::take(0));
    for (const auto &[table, line] : rows) {
        g_fake_files["route"] = table;
        EXPECT_EQ(line == fallback ? -1 : 0, getDefaultGatewayAddr(out));
        EXPECT_EQ(line, fake_logger::take(0));
        EXPECT_TRUE(line.ends_with(out)) << out;
    }
}
