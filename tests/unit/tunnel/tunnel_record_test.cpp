/* Records as read from the DAL. */
#include "tunnel/tunnel_record.h"

#include "core/owned.h"
#include "tunnel/fixture.h"

namespace {

class TunnelRecordTest : public TunnelTest {
protected:
    /** Reads the tunnel "t" into a zeroed record. */
    static int read(vpninfo *record) {
        memset(record, 0, sizeof *record);
        return vyrwrap_read_tunnel_info_from_dal("t", record);
    }

    static void set(const std::string &field, const std::string &value) {
        fake::hashes["/op/tunnel/t"] = tunnel_fields("t", 17, 1);
        fake::hashes["/op/tunnel/t"][field] = value;
    }

    /** Reads the tunnel "t" with one field as given; the others are good. */
    static vpninfo read_with(const std::string &field, const std::string &value, int result = 0) {
        set(field, value);
        vpninfo record;
        EXPECT_EQ(read(&record), result) << field << " " << value;
        return record;
    }
};

const std::string kAll = "<VYRWRAP>: vyrwrap_read_tunnel_info_all_param_from_dal: tun:/op/tunnel/t, ";
const std::string kField = "<VYRWRAP>: get_tun_field_from_kvlist: tun:/op/tunnel/t, ";
const std::string kWhole = "<VYRWRAP>:vyrwrap_read_tunnel_info_from_dal: Error reading tunnel t from DAL, ";

/* ---- names from keys ---- */

TEST_F(TunnelRecordTest, TakesTheNameFromBehindThePrefixOfAKey) {
    char name[201];
    memset(name, 'x', sizeof name);
    EXPECT_EQ(extract_tun_name_from_tun_key("/op/tunnel/hq/1", name), 0);
    EXPECT_STREQ(name, "hq/1");
    EXPECT_EQ(infos(), Texts{"<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name: hq/1"});
}

TEST_F(TunnelRecordTest, AcceptsAKeyWithNothingBehindThePrefix) {
    char name[201] = "before";
    EXPECT_EQ(extract_tun_name_from_tun_key("/op/tunnel/", name), 0);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(infos(), Texts{"<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name: "});
}

TEST_F(TunnelRecordTest, RefusesNoKeyNoBufferAndOtherKeysSilently) {
    char name[201];
    EXPECT_EQ(extract_tun_name_from_tun_key(nullptr, name), -1);
    EXPECT_EQ(extract_tun_name_from_tun_key("/op/tunnel/x", nullptr), -1);
    EXPECT_EQ(extract_tun_name_from_tun_key("/op/tunnel", name), -1);
    EXPECT_EQ(extract_tun_name_from_tun_key("/op/tunnels/x", name), -1);
    EXPECT_EQ(extract_tun_name_from_tun_key("", name), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelRecordTest, AcceptsANameOfTwoHundredCharactersAndNoneOfMore) {
    char name[201];
    const std::string longest(200, 'n');
    EXPECT_EQ(extract_tun_name_from_tun_key(("/op/tunnel/" + longest).c_str(), name), 0);
    EXPECT_EQ(name, longest);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(extract_tun_name_from_tun_key(("/op/tunnel/" + longest + "n").c_str(), name), -1);
    EXPECT_EQ(infos().back(), "<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name: " + longest + "n");
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name(201) is larger than max len(200)"});
}

/* ---- whole records ---- */

TEST_F(TunnelRecordTest, FillsEveryFieldFromItsText) {
    fake::hashes["/op/tunnel/t"] = tunnel_fields("the name", 17, 1);
    vpninfo record;
    ASSERT_EQ(read(&record), 0);
    vpninfo expected;
    memset(&expected, 0, sizeof expected);
    strcpy(expected.tunnel_name, "the name");
    memcpy(expected.dst_mac, "\x00\x1b\x2c\x3d\x4e\x5f", 6);
    strcpy(expected.pair_uuid, "6f1c2a7e-uuid");
    expected.tunnel_index = -7;
    expected.mapid = 17;
    expected.tunnel_ip = 0x0A010203;
    expected.mask = 0xFFFFFFFC;
    expected.peer_tunnel_ip = 0x0A010204;
    expected.peer_public_ip = 0xC0000209;
    expected.flags = 66;
    expected.vlan_id = 4094;
    expected.link_priority = 200;
    expected.tunnel_status = 1;
    EXPECT_EQ(memcmp(&record, &expected, sizeof record), 0);
    EXPECT_EQ(fake::dal_calls, Texts{"dal_hgetall /op/tunnel/t"});
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(fake::log_texts(7),
              Texts{"<VYRWRAP>: vyrwrap_read_tunnel_info_all_param_from_dal: Completed reading tun:/op/tunnel/t from "
                    "DAL"});
}

TEST_F(TunnelRecordTest, CutsTextsThatAreLongerThanTheirField) {
    const std::string text(300, 'x');
    vpninfo record = read_with("tunnel_name", text);
    EXPECT_EQ(std::string(record.tunnel_name, 200), std::string(199, 'x') + '\0');
    EXPECT_EQ(record.dst_mac[1], 0x1b);
    record = read_with("pair_uuid", text);
    EXPECT_EQ(std::string(record.pair_uuid, 40), std::string(39, 'x') + '\0');
    EXPECT_EQ(record.tunnel_index, -7);
}

TEST_F(TunnelRecordTest, KeepsTextsThatJustFit) {
    EXPECT_EQ(read_with("tunnel_name", std::string(199, 'x')).tunnel_name, std::string(199, 'x'));
    EXPECT_EQ(read_with("pair_uuid", std::string(39, 'x')).pair_uuid, std::string(39, 'x'));
}

TEST_F(TunnelRecordTest, EndsATextAtItsFirstNul) {
    EXPECT_STREQ(read_with("tunnel_name", std::string("ab\0cd", 5)).tunnel_name, "ab");
    EXPECT_EQ(read_with("mapid", std::string("12\0"
                                             "34",
                                             5))
                  .mapid,
              12U);
}

TEST_F(TunnelRecordTest, ReadsNumbersAsFarAsTheyGo) {
    EXPECT_EQ(read_with("tunnel_index", "12abc").tunnel_index, 12);
    EXPECT_EQ(read_with("tunnel_index", " +12").tunnel_index, 12);
    EXPECT_EQ(read_with("tunnel_index", "none").tunnel_index, 0);
    EXPECT_EQ(read_with("tunnel_index", "99999999999999999999").tunnel_index, INT32_MAX);
    EXPECT_EQ(read_with("tunnel_index", "-99999999999999999999").tunnel_index, INT32_MIN);
    EXPECT_EQ(read_with("mapid", "-1").mapid, 0xFFFFFFFFU);
    EXPECT_EQ(read_with("flags", "-2").flags, 0xFFFFFFFEU);
}

TEST_F(TunnelRecordTest, TruncatesTheNarrowNumbers) {
    EXPECT_EQ(read_with("vlan_id", "65537").vlan_id, 1);
    EXPECT_EQ(read_with("vlan_id", "-1").vlan_id, 65535);
    EXPECT_EQ(read_with("link_priority", "258").link_priority, 2);
    EXPECT_EQ(read_with("tunnel_status", "257").tunnel_status, 1);
    EXPECT_EQ(read_with("tunnel_status", "-1").tunnel_status, 255);
}

TEST_F(TunnelRecordTest, StoresWhatAMalformedAddressYields) {
    EXPECT_EQ(read_with("tunnel_ip", "10.1.2.3.4").tunnel_ip, 0U);
    EXPECT_EQ(read_with("mask", "x").mask, 0U);
    EXPECT_EQ(read_with("peer_tunnel_ip", "10.1.2.256").peer_tunnel_ip, 0U);
    EXPECT_EQ(read_with("peer_public_ip", " ").peer_public_ip, 0U);
    const uint8_t zeros[18] = {};
    EXPECT_EQ(memcmp(read_with("dst_mac", "no mac").dst_mac, zeros, sizeof zeros), 0);
    EXPECT_TRUE(errors().empty());
}

TEST_F(TunnelRecordTest, TakesItsNameFromTheHashAndNotFromTheKey) {
    EXPECT_STREQ(read_with("tunnel_name", "other").tunnel_name, "other");
}

TEST_F(TunnelRecordTest, IgnoresFieldsThatItDoesNotKnow) {
    EXPECT_EQ(read_with("MAPID", "99").mapid, 17U);
    EXPECT_EQ(read_with(std::string("mapid\0x", 7), "99").mapid, 17U);
    EXPECT_EQ(read_with("", "99").mapid, 17U);
}

/* ---- fields that fail ---- */

TEST_F(TunnelRecordTest, NamesMissingFieldsInTheirOrder) {
    set("x", "y");
    fake::hashes["/op/tunnel/t"].erase("flags");
    fake::hashes["/op/tunnel/t"].erase("vlan_id");
    vpninfo record;
    EXPECT_EQ(read(&record), -1);
    EXPECT_EQ(errors(), (Texts{kField + "Error reading field(9) flags from kvlist",
                               kField + "Error reading field(10) vlan_id from kvlist",
                               kAll + "Error reading 2 fields(flags,vlan_id,) from DAL",
                               kWhole + "Failed params(flags,vlan_id,)"}));
    EXPECT_EQ(record.link_priority, 200);
    EXPECT_TRUE(fake::log_texts(7).empty());
}

TEST_F(TunnelRecordTest, DoesNotTakeAFieldForOneWhoseNameItBeginsWith) {
    set("mask2", "255.0.0.0");
    fake::hashes["/op/tunnel/t"].erase("mask");
    vpninfo record;
    EXPECT_EQ(read(&record), -1);
    EXPECT_EQ(record.mask, 0U);
    EXPECT_EQ(errors().back(), kWhole + "Failed params(mask,)");
}

TEST_F(TunnelRecordTest, NamesEveryFieldOfAHashThatHasNone) {
    fake::hashes["/op/tunnel/t"] = {{"other", "1"}};
    vpninfo record;
    EXPECT_EQ(read(&record), -1);
    const std::string names =
        "tunnel_name,dst_mac,pair_uuid,tunnel_index,mapid,tunnel_ip,mask,peer_tunnel_ip,"
        "peer_public_ip,flags,vlan_id,link_priority,tunnel_status,";
    ASSERT_EQ(errors().size(), 15U);
    EXPECT_EQ(errors()[0], kField + "Error reading field(0) tunnel_name from kvlist");
    EXPECT_EQ(errors()[12], kField + "Error reading field(12) tunnel_status from kvlist");
    EXPECT_EQ(errors()[13], kAll + "Error reading 13 fields(" + names + ") from DAL");
    EXPECT_EQ(errors()[14], kWhole + "Failed params(" + names + ")");
}

TEST_F(TunnelRecordTest, CountsAMapidOfZeroAsMissing) {
    for (const char *text : {"0", "abc", "0x11", "-0", " "}) {
        fake::log_lines.clear();
        EXPECT_EQ(read_with("mapid", text, -1).mapid, 0U);
        EXPECT_EQ(errors(),
                  (Texts{kField + "Error reading field(4) mapid from kvlist",
                         kAll + "Error reading 1 fields(mapid,) from DAL", kWhole + "Failed params(mapid,)"}));
    }
}

TEST_F(TunnelRecordTest, StoresTheMapidOfZeroThatItRefuses) {
    set("mapid", "0");
    vpninfo record;
    memset(&record, 0xff, sizeof record);
    EXPECT_EQ(vyrwrap_read_tunnel_info_from_dal("t", &record), -1);
    EXPECT_EQ(record.mapid, 0U);
}

TEST_F(TunnelRecordTest, RefusesEmptyValues) {
    const Texts names = {"tunnel_name", "dst_mac",       "pair_uuid",      "tunnel_index",   "mapid",
                         "tunnel_ip",   "mask",          "peer_tunnel_ip", "peer_public_ip", "flags",
                         "vlan_id",     "link_priority", "tunnel_status"};
    for (size_t i = 0; i < names.size(); i++) {
        fake::log_lines.clear();
        read_with(names[i], "", -1);
        EXPECT_EQ(errors(), (Texts{kField + "field(" + std::to_string(i) + "):" + names[i] + ", value is zero lengh",
                                   kAll + "Error reading 1 fields(" + names[i] + ",) from DAL",
                                   kWhole + "Failed params(" + names[i] + ",)"}));
    }
}

/* ---- the DAL ---- */

TEST_F(TunnelRecordTest, ReportsADalThatFails) {
    set("x", "y");
    fake::failing_calls.insert("dal_hgetall");
    vpninfo record;
    EXPECT_EQ(read(&record), -1);
    EXPECT_EQ(errors(), (Texts{kAll + "Error reading tunnel from DAL (ret -1)", kWhole + "Failed params()"}));
}

TEST_F(TunnelRecordTest, ReleasesTheListThatAFailedReadLeft) {
    set("x", "y");
    fake::failing_calls.insert("dal_hgetall late");
    vpninfo record;
    EXPECT_EQ(read(&record), -1);
    EXPECT_EQ(errors(), (Texts{kAll + "Error reading tunnel from DAL (ret -1)", kWhole + "Failed params()"}));
}

TEST_F(TunnelRecordTest, ReportsATunnelThatIsNotThere) {
    vpninfo record;
    EXPECT_EQ(read(&record), -1);
    EXPECT_EQ(errors(), (Texts{kAll + "Error reading tunnel from DAL, kv-list empty", kWhole + "Failed params()"}));
}

TEST_F(TunnelRecordTest, CutsTheKeyOfALongName) {
    const std::string name(200, 'n');
    const std::string cut = "/op/tunnel/" + std::string(180, 'n');
    fake::hashes[cut] = tunnel_fields("t", 17, 1);
    vpninfo record{};
    EXPECT_EQ(vyrwrap_read_tunnel_info_from_dal(name.c_str(), &record), 0);
    EXPECT_EQ(fake::dal_calls, Texts{"dal_hgetall " + cut});
}

TEST_F(TunnelRecordTest, CutsAKeyThatTheRequestCannotHold) {
    const std::string key(300, 'k');
    vpninfo record{};
    char failed[416] = {};
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(&record, key.c_str(), failed, sizeof failed), -1);
    EXPECT_EQ(fake::dal_calls, Texts{"dal_hgetall " + std::string(191, 'k')});
}

/* ---- arguments ---- */

TEST_F(TunnelRecordTest, RefusesMissingArgumentsSilently) {
    vpninfo record{};
    char failed[416] = {};
    EXPECT_EQ(vyrwrap_read_tunnel_info_from_dal(nullptr, &record), -1);
    EXPECT_EQ(vyrwrap_read_tunnel_info_from_dal("t", nullptr), -1);
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(nullptr, "k", failed, sizeof failed), -1);
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(&record, nullptr, failed, sizeof failed), -1);
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(&record, "", failed, sizeof failed), -1);
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(&record, "k", nullptr, sizeof failed), -1);
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(&record, "k", failed, 0), -1);
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelRecordTest, RefusesAFieldThatThereIsNotSilently) {
    vpninfo record{};
    List *empty = ListCreate();
    EXPECT_EQ(get_tun_field_from_kvlist("t", nullptr, 0, &record), 0);
    EXPECT_EQ(get_tun_field_from_kvlist("t", empty, 0, nullptr), 0);
    EXPECT_EQ(get_tun_field_from_kvlist("t", empty, 13, &record), 0);
    EXPECT_EQ(get_tun_field_from_kvlist("t", empty, -1, &record), 0);
    EXPECT_TRUE(fake::log_lines.empty());
    ListDestroy(empty);
}

TEST_F(TunnelRecordTest, FindsAFieldWhereverTheListWasReadTo) {
    char name[] = "mapid";
    char value[] = "5";
    dal_kv entry = {name, 5, value, 1};
    List *list = ListCreate();
    ListAppend(list, &entry);
    vpninfo record{};
    EXPECT_EQ(get_tun_field_from_kvlist("t", list, 4, &record), 1);
    EXPECT_EQ(get_tun_field_from_kvlist("t", list, 4, &record), 1);
    EXPECT_EQ(record.mapid, 5U);
    ListDestroy(list);
}

TEST_F(TunnelRecordTest, NeverWritesBehindAShortListOfFailures) {
    fake::hashes["/op/tunnel/t"] = {{"other", "1"}};
    vpninfo record{};
    char failed[20] = {};
    EXPECT_EQ(vyrwrap_read_tunnel_info_all_param_from_dal(&record, "/op/tunnel/t", failed, 15), -1);
    EXPECT_EQ(std::string(failed, sizeof failed), std::string("tunnel_name,ds") + std::string(6, '\0'));
}

TEST_F(TunnelRecordTest, EachFieldFillsItsOwnPartOfTheRecordOnly) {
    fake::hashes["/op/tunnel/t"] = tunnel_fields("the name", 17, 1);
    vpninfo whole;
    ASSERT_EQ(read(&whole), 0);
    dal_hash_request request{};
    strcpy(request.key, "/op/tunnel/t");
    ASSERT_EQ(dal_hgetall(vyrwrap_global.dal_ctx, &request), 0);
    const OwnedDalList list(request.kvlist);
    std::string sum(sizeof(vpninfo), '\0');
    for (int field = 0; field < kTunnelFieldCount; field++) {
        vpninfo record;
        memset(&record, 0, sizeof record);
        EXPECT_EQ(get_tun_field_from_kvlist("t", list.get(), field, &record), 1);
        const std::string_view bytes(reinterpret_cast<const char *>(&record), sizeof record);
        for (size_t i = 0; i < bytes.size(); i++) {
            EXPECT_TRUE(bytes[i] == '\0' || sum[i] == '\0') << "field " << field << " byte " << i;
            sum[i] = static_cast<char>(sum[i] | bytes[i]);
        }
    }
    EXPECT_EQ(memcmp(sum.data(), &whole, sizeof whole), 0);
}

}  // namespace
