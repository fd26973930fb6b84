#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>

#include "fakes/bad_input.h"
#include "fakes/routing_app.h"
#include "oap/oap_config.h"
#include "platform/cmnutil.h"
#include "vlan/vlan_relay.h"

namespace {

constexpr char kPrefix[] = "__keyspace@0__:/op/vlans/route";

/** A VLAN's key as it should be read, the plain way. */
std::optional<vlan_Iface> vlan_of(const std::string &path) {
    const size_t brace = path.find('{');
    const size_t colon = path.find(':');
    if (brace == std::string::npos || colon == std::string::npos)
        return {};
    const size_t next_colon = path.find(':', colon + 1);
    if (next_colon == std::string::npos)
        return {};
    const size_t end = path.find('}', next_colon);
    if (end == std::string::npos)
        return {};
    const std::string address = colon > brace ? path.substr(brace + 1, colon - brace - 1) : "";
    const std::string netmask = path.substr(colon + 1, next_colon - colon - 1);
    const int id = atoi(path.substr(next_colon + 1, end - next_colon - 1).c_str());
    in_addr parsed;
    for (const std::string &text : {address, netmask})
        if (text.size() > 15 || !inet_aton(text.c_str(), &parsed))
            return {};
    if (id < 1 || id > 4095)
        return {};
    return vlan_Iface{7, static_cast<uint32_t>(id), str_to_ip(address.c_str()), str_to_ip(netmask.c_str())};
}

class VlanBadInputTest : public fake::RoutingAppTest {
protected:
    void SetUp() override {
        RoutingAppTest::SetUp();
        oapCfg_g = {};
        unlink(kOapConfigPath);
    }

    std::mt19937 random_{1};
};

TEST_F(VlanBadInputTest, APathOfAnyTextIsReadAsTheRulesSay) {
    const std::string pieces[] = {
        "{",  "}",  ":",  "1",  "10.1.1.1", "255.255.0.0", "4095", "4096", "-1", " ",
        "\n", "%s", "%n", "\"", "\xff",     "\x01",        "0x1",  "0",    "12", "{10.1.1.1:255.0.0.0:12}"};
    int accepted = 0;
    for (int round = 0; round < 30000; round++) {
        std::string path;
        for (size_t count = random_() % 10; count > 0; count--)
            path += pieces[random_() % std::size(pieces)];
        vlan_Iface record = {1, 2, 3, 4};
        const int result = vyrwrap_read_vlan_interface_info_from_path(path.c_str(), 7, &record);
        const std::optional<vlan_Iface> expected = vlan_of(path);
        ASSERT_EQ(result, expected ? 0 : -1) << path;
        const vlan_Iface untouched = {1, 2, 3, 4};
        ASSERT_EQ(memcmp(&record, expected ? &*expected : &untouched, sizeof record), 0) << path;
        accepted += expected ? 1 : 0;
        fake::log_lines.clear();
    }
    EXPECT_GT(accepted, 100);
}

TEST_F(VlanBadInputTest, AChannelOfAnyBytesAndLengthIsRefusedOrRead) {
    for (int round = 0; round < 5000; round++) {
        const std::string channel = fake::random_text(random_, fake::all_characters(), 400);
        vlan_Iface record{};
        vyrwrap_read_vlan_interface_info_from_notify_key(channel.c_str(), 4, &record);
        fake::log_lines.clear();
    }
    for (size_t length = 0; length < 300; length++) {
        const std::string channel = ":{1.1.1.1:0.0.0.0:" + std::string(length, ' ') + "5}";
        vlan_Iface record{};
        const bool fits = channel.size() - 1 <= 127;
        EXPECT_EQ(vyrwrap_read_vlan_interface_info_from_notify_key(channel.c_str(), 4, &record), fits ? 0 : -1);
        EXPECT_EQ(record.vlan_id, fits ? 5U : 0U) << length;
    }
}

TEST_F(VlanBadInputTest, OnlyAWholeNotificationIsSent) {
    fake::for_each_reply(kPrefix + std::string("{10.1.1.1:255.0.0.0:1}"), "set",
                         [this](const dal_reply *reply, const fake::ReplyShape &shape) {
                             vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), reply, nullptr);
                             ASSERT_EQ(app_.receive().size(), shape.is_notification() ? 1U : 0U);
                             fake::log_lines.clear();
                         });
}

TEST_F(VlanBadInputTest, OnlyANotificationOfTheRedistributedVlansWritesTheFile) {
    fake::for_each_reply(kPrefix + std::string("_redistributed_vlans"), "set",
                         [](const dal_reply *reply, const fake::ReplyShape &shape) {
                             vyrwrap_global.config_dirty = 0;
                             vyrwrap_RouteRedistVlans_subs_callback(fake::context(), reply, nullptr);
                             const bool written = shape.has_four_elements && shape.has_channel && shape.has_event;
                             ASSERT_EQ(vyrwrap_global.config_dirty, written ? 1 : 0);
                             fake::log_lines.clear();
                         });
}

TEST_F(VlanBadInputTest, AReplayOutlivesEveryFailureOfAnAllocation) {
    for (int i = 1; i <= 40; i++)
        fake::strings["/op/vlans/route{10.0.0.1:255.0.0.0:" + std::to_string(i) + "}"] = "";
    int sent = 0;
    fake::on_sendto = [&sent](long *result) {
        sent++;
        *result = 348;
        return true;
    };
    fake::with_every_allocation_failing(vyrwrap_handle_VlanIfaceInfo_replayall, [&sent] {
        sent = 0;
        vyrwrap_handle_VlanIfaceInfo_replayall();
        EXPECT_EQ(sent, 40);
        fake::log_lines.clear();
    });
}

}  // namespace
