#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "fakes/bad_input.h"
#include "oap_fixture.h"

namespace {

constexpr char kTemplate[] = "/etc/bird/vyr_oap.conf";
constexpr char kVlansKey[] = "/op/vlans/route_redistributed_vlans";
constexpr char kEnableKey[] = "/config/vyr/oap/proto_oap_enable";

/** The list that a value's text stands for, the plain way. */
std::vector<uint32_t> vlans_of(const std::string &value) {
    std::vector<uint32_t> ids;
    for (size_t separator = value.find('{'); separator != std::string::npos;) {
        const size_t begin = separator + 1;
        separator = value.find(':', begin);
        if (separator == std::string::npos)
            separator = value.find('}', begin);
        if (separator == std::string::npos)
            break;
        const std::string token = value.substr(begin, separator - begin);
        const long id = strtol(token.c_str(), nullptr, 10);
        if (token.size() <= 11 && id >= 1 && id <= 4095 && ids.size() < 4096)
            ids.push_back(static_cast<uint32_t>(id));
    }
    return ids;
}

class OapBadInputTest : public OapTest {
protected:
    void SetUp() override {
        OapTest::SetUp();
        oapCfg_g.distance = 90;
        mkdir("/etc/bird", 0755);
    }

    static bool is_terminated() {
        return memchr(oapCfg_g.mac, 0, sizeof oapCfg_g.mac) && memchr(oapCfg_g.serial, 0, sizeof oapCfg_g.serial) &&
               memchr(oapCfg_g.site_id, 0, sizeof oapCfg_g.site_id) &&
               memchr(oapCfg_g.tenant_id, 0, sizeof oapCfg_g.tenant_id);
    }

    std::mt19937 random_{3};
};

TEST_F(OapBadInputTest, AListOfAnyTextIsReadAsTheRulesSay) {
    const std::string pieces[] = {"{", "}",  ":",  "1", "20", "4095",         "4096",        "0",          "-5",
                                  " ", "\t", "%s", "x", "\"", "000000000001", "00000000012", "99999999999"};
    for (int round = 0; round < 20000; round++) {
        std::string value = round % 2 ? "{" : "";
        for (size_t count = random_() % 12; count > 0; count--)
            value += pieces[random_() % std::size(pieces)];
        fake::strings[kVlansKey] = value;
        vyrwrap_update_redistvlan_oap_config_from_key(kVlansKey);
        // the comparison with "{}" goes over the value's length
        const bool none = value == "{}" || value == "{" || value.empty();
        ASSERT_EQ(vlans(), none ? std::vector<uint32_t>() : vlans_of(value)) << value;
        fake::log_lines.clear();
    }
}

TEST_F(OapBadInputTest, AListOfAnyLengthAround20000BytesIsReadUpToItsLastWholeId) {
    oapCfg_g.bEnable = 1;
    for (size_t length = 19980; length < 20020; length++)
        for (const std::string &id : {std::string("1"), std::string("4095"), std::string("12345")}) {
            std::string value = "{";
            while (value.size() < length)
                value += id + ":";
            value.resize(length - 1);
            value += "}";
            fake::strings[kVlansKey] = value;
            vyrwrap_update_redistvlan_oap_config_from_key(kVlansKey);
            ASSERT_EQ(vlans(), vlans_of(value.substr(0, 20000))) << length << " " << id;
            EXPECT_EQ(oapWriteConfig(), 0);
            fake::log_lines.clear();
        }
}

TEST_F(OapBadInputTest, AListOfAnyBytesLeavesTheListWithinItsBounds) {
    const std::string characters = fake::all_characters() + std::string(1, '\0');
    for (int round = 0; round < 1000; round++) {
        fake::strings[kVlansKey] = "{" + fake::random_text(random_, characters, 25000);
        vyrwrap_update_redistvlan_oap_config_from_key(kVlansKey);
        ASSERT_LE(oapCfg_g.redist_vlan_count, 4096U);
        for (const uint32_t id : vlans())
            ASSERT_TRUE(id >= 1 && id <= 4095) << id;
        fake::log_lines.clear();
    }
}

TEST_F(OapBadInputTest, ATemplateOfAnyBytesAndLengthsIsTaken) {
    const std::string words[] = {"SY:S-:MA:C-:AD:DR",     "SYSSERIAL", "tenant id", "site id", "keepalive",
                                 "cbs_reconnect_timeout", "\"",        " ",         ";",       "\n"};
    const std::string characters = fake::all_characters() + std::string(1, '\0');
    for (int round = 0; round < 1500; round++) {
        std::string content;
        for (size_t count = random_() % 12; count > 0; count--)
            content += words[random_() % std::size(words)] + fake::random_text(random_, characters, 300);
        fake::serial = fake::random_text(random_, fake::all_characters(), 40);
        oapCfg_g.bEnable = random_() % 2;
        fake::write_file(kTemplate, content + "\n keepalive 7;\n");
        ASSERT_EQ(oapReadIdentity(), 0);
        ASSERT_TRUE(is_terminated());
        ASSERT_EQ(oapCfg_g.keepalive, 7U);
        ASSERT_LE(file().size(), oapCfg_g.bEnable ? content.size() + 15 : 0U);
    }
}

TEST_F(OapBadInputTest, OnlyAWholeNotificationSwitchesTheOverlay) {
    fake::for_each_reply(std::string("__keyspace@0__:") + kEnableKey, "del",
                         [](const dal_reply *reply, const fake::ReplyShape &shape) {
                             oapCfg_g.bEnable = 1;
                             vyrwrap_vyr_cfg_subscribe_callback(fake::context(), reply, nullptr);
                             ASSERT_EQ(oapCfg_g.bEnable, shape.is_notification() ? 0 : 1);
                             fake::log_lines.clear();
                         });
}

TEST_F(OapBadInputTest, AnEnableValueOfAnyBytesSwitchesOnByItsFirstAlone) {
    for (int byte = 0; byte < 256; byte++)
        for (const size_t length : {0U, 1U, 2U, 30000U}) {
            oapCfg_g.bEnable = 0;
            fake::strings[kEnableKey] = std::string(length, static_cast<char>(byte));
            const fake::Reply reply({"pmessage", "", std::string("__keyspace@0__:") + kEnableKey, "set"});
            vyrwrap_vyr_cfg_subscribe_callback(fake::context(), reply.get(), nullptr);
            ASSERT_EQ(oapCfg_g.bEnable, byte == 1 && length > 0 ? 1 : 0);
            fake::log_lines.clear();
        }
}

TEST_F(OapBadInputTest, TheWriterKeepsTheOldFileAtEveryFailureOfAnAllocation) {
    oapCfg_g.bEnable = 1;
    set_vlans(std::vector<uint32_t>(4096, 4095));
    EXPECT_EQ(oapWriteConfig(), 0);
    const std::string whole = file();
    fake::with_every_allocation_failing(
        [&whole] {
            const bool written = oapWriteConfig() == 0;
            EXPECT_EQ(file(), whole) << written;
        },
        [&whole] {
            EXPECT_EQ(oapWriteConfig(), 0);
            EXPECT_EQ(file(), whole);
            fake::log_lines.clear();
        });
}

}  // namespace
