/* The table: additions, changes, removals, and one tunnel a mapid. */
#include "tunnel/tunnel_table.h"

#include <errno.h>

#include "tunnel/fixture.h"
#include "tunnel/tunnel_message.h"

namespace {

class TunnelTableTest : public TunnelTest {
protected:
    static uint32_t count() { return HashCount(vyrwrap_global.tunnel_table); }

    /** A tunnel whose hash gives it another name than its key. */
    static void hset_named(const std::string &key, const std::string &tunnel_name, uint32_t mapid) {
        fake::hashes["/op/tunnel/" + key] = tunnel_fields(tunnel_name, mapid, 0);
        notify(key, "hset");
    }

    static bool logged_error(const std::string &text) { return fake::logged(3, text); }
};

const std::string kHset = "vyrwrap_handle_dal_ipsec_tunnel_notify_hset: ";
const std::string kDelete = "vyrwrap_delete_ipsec_tunnel: ";

/* ---- the table itself ---- */

TEST_F(TunnelTableTest, IsMadeOnce) {
    HashTable *table = vyrwrap_global.tunnel_table;
    ASSERT_NE(table, nullptr);
    vyrwrap_ipsec_tunnel_info_init();
    EXPECT_EQ(vyrwrap_global.tunnel_table, table);
    EXPECT_TRUE(fake::log_lines.empty());
    leave_table();
    vyrwrap_ipsec_tunnel_info_init();
    EXPECT_EQ(infos(), Texts{"<VYRWRAP>:vyrwrap_ipsec_tunnel_info_init: vyrwrap_ipsec_tun_list initialized (" +
                             pointer_text(vyrwrap_global.tunnel_table) + ")"});
}

TEST_F(TunnelTableTest, FindsTheFirstTunnelOfAMapid) {
    put("a", 5);
    put("b", 5);
    put("c", 6);
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_STREQ(vyrwrap_find_tunnel_by_mapid(5)->tunnel_name, "a");
    EXPECT_STREQ(vyrwrap_find_tunnel_by_mapid(6)->tunnel_name, "c");
    EXPECT_EQ(vyrwrap_find_tunnel_by_mapid(7), nullptr);
}

TEST_F(TunnelTableTest, DoesWithoutATable) {
    leave_table();
    EXPECT_EQ(vyrwrap_find_tunnel("a"), nullptr);
    EXPECT_EQ(vyrwrap_find_tunnel_by_mapid(1), nullptr);
    hset("a", 1);
    notify("a", "del");
    EXPECT_TRUE(received().empty());
}

/* ---- additions ---- */

TEST_F(TunnelTableTest, AddsANewTunnelWithTheOpcodeOfItsStatus) {
    hset("down", 1, 0);
    EXPECT_TRUE(fake::logged(6, kHset + "tun down (new) mapid:0x1,ts:0"));
    hset("up", 26, 1);
    EXPECT_TRUE(fake::logged(6, kHset + "tun up (new) mapid:0x1a,ts:1"));
    hset("odd", 3, 2);
    EXPECT_EQ(received(), (Texts{"1 down", "9 up", "1 odd"}));
    EXPECT_EQ(count(), 3U);
    EXPECT_TRUE(errors().empty());
}

TEST_F(TunnelTableTest, SendsTheRecordThatItKeeps) {
    hset("a", 17, 1);
    const Texts datagrams = app_.receive();
    ASSERT_EQ(datagrams.size(), 1U);
    ASSERT_EQ(datagrams[0].size(), 348U);
    EXPECT_EQ(fake::word_at(datagrams[0], 312), 17U);
    EXPECT_EQ(fake::byte_at(datagrams[0], 339), 1);
    EXPECT_EQ(vyrwrap_find_tunnel("a")->mapid, 17U);
    EXPECT_EQ(vyrwrap_find_tunnel("a")->tunnel_status, 1);
}

TEST_F(TunnelTableTest, GoesByTheNameOfTheKey) {
    hset_named("key", "inner", 4);
    ASSERT_NE(vyrwrap_find_tunnel("key"), nullptr);
    EXPECT_STREQ(vyrwrap_find_tunnel("key")->tunnel_name, "inner");
    EXPECT_EQ(vyrwrap_find_tunnel("inner"), nullptr);
    EXPECT_EQ(received(), Texts{"1 inner"});
}

TEST_F(TunnelTableTest, KeepsANameOfTwoHundredCharactersReadThroughItsCutKey) {
    const std::string name(200, 'n');
    fake::hashes["/op/tunnel/" + name.substr(0, 180)] = tunnel_fields("long", 4, 0);
    notify(name, "hset");
    EXPECT_NE(vyrwrap_find_tunnel(name.c_str()), nullptr);
    EXPECT_EQ(received(), Texts{"1 long"});
}

TEST_F(TunnelTableTest, DoesNothingForANullName) {
    vyrwrap_handle_dal_ipsec_tunnel_notify_hset(nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_TRUE(fake::dal_calls.empty());
    vyrwrap_handle_dal_ipsec_tunnel_notify_del(nullptr);
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>: vyrwrap_handle_dal_ipsec_tunnel_notify_del: cann't delete tunnel NULL, it "
                              "doesn't exist in vyrwrap"});
}

/* ---- changes ---- */

TEST_F(TunnelTableTest, TellsAChangeByWhatBecameOfTheStatus) {
    struct Change {
        int from;
        int to;
        std::string opcode;
    };
    const Change changes[] = {{0, 0, "3"}, {0, 1, "4"}, {1, 1, "3"}, {1, 2, "5"}, {2, 2, "3"},
                              {2, 1, "4"}, {1, 0, "5"}, {0, 2, "5"}, {2, 0, "5"}};
    for (const Change &change : changes) {
        hset("a", 1, change.from);
        received();
        hset("a", 1, change.to);
        EXPECT_EQ(received(), Texts{change.opcode + " a"}) << change.from << " to " << change.to;
    }
    EXPECT_EQ(count(), 1U);
}

TEST_F(TunnelTableTest, CopiesTheWholeNewRecordOverTheOldOne) {
    hset("a", 1);
    const vpninfo *record = vyrwrap_find_tunnel("a");
    Fields changed = tunnel_fields("renamed", 1, 1);
    changed["peer_public_ip"] = "198.51.100.1";
    changed["vlan_id"] = "7";
    fake::hashes["/op/tunnel/a"] = changed;
    notify("a", "hset");
    EXPECT_EQ(vyrwrap_find_tunnel("a"), record);
    EXPECT_STREQ(record->tunnel_name, "renamed");
    EXPECT_EQ(record->peer_public_ip, 0xC6336401U);
    EXPECT_EQ(record->vlan_id, 7);
    EXPECT_EQ(received(), (Texts{"1 a", "4 renamed"}));
    EXPECT_TRUE(fake::logged(6, kHset + "tun a (existing) mapid:0x1,ts:1"));
    EXPECT_TRUE(errors().empty());
}

TEST_F(TunnelTableTest, DoesNotLookForTheMapidOfATunnelThatKeepsIts) {
    put("a", 5);
    put("b", 5);
    vyrwrap_read_all_tunnels_from_dal();
    notify("b", "hset");
    EXPECT_EQ(received(), Texts{"3 b"});
    EXPECT_EQ(count(), 2U);
}

TEST_F(TunnelTableTest, DeletesATunnelWhoseMapidChangesAndAddsItAgain) {
    hset("a", 1, 1);
    received();
    fake::log_lines.clear();
    hset("a", 31, 1);
    EXPECT_EQ(received(), (Texts{"2 a", "9 a"}));
    EXPECT_EQ(errors(), Texts{"mapid changed for tunnel a.(prev:0x1,new:0x1f) Delete old tunnel"});
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP>:" + kDelete + "Removed tunnel a from hash table"));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(vyrwrap_find_tunnel("a")->mapid, 31U);
}

TEST_F(TunnelTableTest, DeletesTheTunnelWhoseMapidANewOneTakes) {
    hset("a", 1);
    received();
    hset("b", 1, 1);
    EXPECT_EQ(received(), (Texts{"2 a", "9 b"}));
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>:" + kHset + "(b, 0x1) Another tunnel a exists with same mapid. Delete it"});
    EXPECT_EQ(vyrwrap_find_tunnel("a"), nullptr);
    EXPECT_EQ(count(), 1U);
}

TEST_F(TunnelTableTest, DeletesBothWhenAChangedMapidIsAnothersToo) {
    hset("a", 1);
    hset("b", 2);
    received();
    fake::log_lines.clear();
    hset("a", 2);
    EXPECT_EQ(received(), (Texts{"2 a", "2 b", "1 a"}));
    EXPECT_EQ(errors(), (Texts{"mapid changed for tunnel a.(prev:0x1,new:0x2) Delete old tunnel",
                               "<VYRWRAP>:" + kHset + "(a, 0x2) Another tunnel b exists with same mapid. Delete it"}));
    EXPECT_EQ(count(), 1U);
}

TEST_F(TunnelTableTest, DeletesOnlyTheFirstOfSeveralWithTheMapid) {
    put("a", 5);
    put("b", 5);
    vyrwrap_read_all_tunnels_from_dal();
    hset("c", 5);
    EXPECT_EQ(received(), (Texts{"2 a", "1 c"}));
    EXPECT_EQ(count(), 2U);
    EXPECT_NE(vyrwrap_find_tunnel("b"), nullptr);
}

/* ---- what fails ---- */

TEST_F(TunnelTableTest, KeepsThePreviousCopyWhenTheTunnelCannotBeRead) {
    hset("a", 1, 1);
    received();
    fake::log_lines.clear();
    fake::hashes["/op/tunnel/a"]["mapid"] = "0";
    notify("a", "hset");
    EXPECT_EQ(errors().back(), kHset + "Error reading tunnel(a) info from DAL");
    EXPECT_TRUE(received().empty());
    EXPECT_EQ(vyrwrap_find_tunnel("a")->mapid, 1U);
}

TEST_F(TunnelTableTest, ReportsMissingMemoryForTheRecord) {
    put("a", 1);
    fake::fail_call("calloc", ENOMEM);
    notify("a", "hset");
    EXPECT_EQ(errors(), Texts{"vyrwrap_handle_dal_ipsec_tunnel_notify_hset:Failed to malloc tunnel stucture for tunnel "
                              "a"});
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_TRUE(received().empty());
    notify("a", "hset");
    EXPECT_EQ(received(), Texts{"1 a"});
}

TEST_F(TunnelTableTest, SendsNothingOfATunnelThatTheTableHasNoMemoryFor) {
    put("a", 1);
    fake::on_log = [](const fake::LogLine &line) {
        if (line.text == kHset + "tun a (new) mapid:0x1,ts:0")
            fake::fail_call("calloc", ENOMEM);
    };
    notify("a", "hset");
    EXPECT_EQ(errors(), Texts{"vyrwrap_handle_dal_ipsec_tunnel_notify_hset:Failed to malloc tunnel stucture for tunnel "
                              "a"});
    EXPECT_EQ(count(), 0U);
    EXPECT_TRUE(received().empty());
}

TEST_F(TunnelTableTest, KeepsATunnelThatCouldNotBeSent) {
    put("a", 1, 1);
    fake::fail_call("sendto", EAGAIN);
    notify("a", "hset");
    const vpninfo *record = vyrwrap_find_tunnel("a");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(errors().back(), kHset + "Tunnel a(0x" + pointer_text(record) +
                                   ") - sending tunnel info (opcode 9) to vyr failed (ret:-1)");
    fake::fail_call("sendto", EAGAIN);
    hset("a", 1, 0);
    EXPECT_EQ(errors().back(), kHset + "Tunnel a(0x" + pointer_text(record) +
                                   ") - sending tunnel info (opcode 5) to vyr failed (ret:-1)");
    EXPECT_EQ(record->tunnel_status, 0);
}

/* ---- removals ---- */

TEST_F(TunnelTableTest, DeletesATunnelWhoseKeyIsGone) {
    hset("a", 1, 1);
    hset("b", 2);
    received();
    fake::log_lines.clear();
    notify("a", "del");
    EXPECT_EQ(received(), Texts{"2 a"});
    EXPECT_EQ(infos().back(), "<VYRWRAP>:" + kDelete + "Removed tunnel a from hash table");
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(vyrwrap_find_tunnel("a"), nullptr);
    EXPECT_NE(vyrwrap_find_tunnel("b"), nullptr);
}

TEST_F(TunnelTableTest, SendsADeleteWithTheRecordAsItWas) {
    hset("a", 17, 1);
    app_.receive();
    notify("a", "del");
    const Texts datagrams = app_.receive();
    ASSERT_EQ(datagrams.size(), 1U);
    EXPECT_EQ(fake::word_at(datagrams[0], 12), 2U);
    EXPECT_EQ(fake::word_at(datagrams[0], 312), 17U);
    EXPECT_EQ(fake::byte_at(datagrams[0], 339), 1);
}

TEST_F(TunnelTableTest, ReportsARemovedKeyThatIsNotKnown) {
    notify("a", "del");
    EXPECT_EQ(errors(),
              Texts{"<VYRWRAP>: vyrwrap_handle_dal_ipsec_tunnel_notify_del: cann't delete tunnel a, it doesn't "
                    "exist in vyrwrap"});
    EXPECT_TRUE(received().empty());
}

TEST_F(TunnelTableTest, RefusesToDeleteNoRecord) {
    EXPECT_EQ(vyrwrap_delete_ipsec_tunnel(nullptr), -1);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(TunnelTableTest, DeletesATunnelThoughTheApplicationCannotBeTold) {
    hset("a", 1);
    const std::string pointer = pointer_text(vyrwrap_find_tunnel("a"));
    fake::log_lines.clear();
    fake::fail_call("sendto", ECONNREFUSED);
    notify("a", "del");
    EXPECT_EQ(errors().back(), kDelete + "Tunnel a(" + pointer + ") - sending delete to vyr failed (ret:-1)");
    EXPECT_EQ(count(), 0U);
}

/* ---- a name in the hash that is not the key's ---- */

TEST_F(TunnelTableTest, CannotRemoveATunnelThatIsNamedOtherwiseThanItsKey) {
    hset_named("key", "inner", 4);
    received();
    fake::log_lines.clear();
    notify("key", "del");
    EXPECT_EQ(received(), Texts{"2 inner"});
    EXPECT_EQ(errors(),
              (Texts{"<VYRWRAP>:" + kDelete + "Failed to remove tunnel inner from hash table",
                     "<VYRWRAP>:vyrwrap_handle_dal_ipsec_tunnel_notify_del:572 - Failed to delete tunnel key"}));
    EXPECT_NE(vyrwrap_find_tunnel("key"), nullptr);
}

TEST_F(TunnelTableTest, LeavesAnotherTunnelUnderTheRecordsNameAlone) {
    hset("a", 1);
    hset_named("b", "a", 2);
    received();
    notify("b", "del");
    EXPECT_TRUE(logged_error("<VYRWRAP>:" + kDelete + "Failed to remove tunnel a from hash table"));
    EXPECT_EQ(received(), Texts{"2 a"});
    ASSERT_EQ(count(), 2U);
    EXPECT_EQ(vyrwrap_find_tunnel("a")->mapid, 1U);
    EXPECT_EQ(vyrwrap_find_tunnel("b")->mapid, 2U);
}

TEST_F(TunnelTableTest, ReplacesARecordThatCouldNotBeRemovedWhenItsMapidChanges) {
    hset_named("key", "inner", 4);
    received();
    fake::log_lines.clear();
    hset_named("key", "inner", 5);
    EXPECT_EQ(received(), (Texts{"2 inner", "1 inner"}));
    EXPECT_EQ(errors(), (Texts{"mapid changed for tunnel key.(prev:0x4,new:0x5) Delete old tunnel",
                               "<VYRWRAP>:" + kDelete + "Failed to remove tunnel inner from hash table",
                               "<VYRWRAP>:vyrwrap_handle_dal_ipsec_tunnel_notify_hset:496 - Failed to delete tunnel "
                               "key with prev mapid(0x4)"}));
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(vyrwrap_find_tunnel("key")->mapid, 5U);
}

TEST_F(TunnelTableTest, KeepsBothOfAMapidWhenTheOtherCannotBeRemoved) {
    hset_named("key", "inner", 4);
    received();
    fake::log_lines.clear();
    hset("b", 4);
    EXPECT_EQ(received(), (Texts{"2 inner", "1 b"}));
    EXPECT_EQ(errors(), (Texts{"<VYRWRAP>:" + kHset + "(b, 0x4) Another tunnel inner exists with same mapid. Delete it",
                               "<VYRWRAP>:" + kDelete + "Failed to remove tunnel inner from hash table",
                               "<VYRWRAP>:vyrwrap_handle_dal_ipsec_tunnel_notify_hset:512 - Failed to delete existing "
                               "tunnel with new mapid 0x4"}));
    EXPECT_EQ(count(), 2U);
}

}  // namespace
