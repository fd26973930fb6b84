/* The replay: everything read again, everything sent as one datagram. */
#include <errno.h>

#include "fakes/bad_input.h"
#include "tunnel/fixture.h"
#include "tunnel/tunnel_message.h"
#include "tunnel/tunnel_table.h"

namespace {

class TunnelReplayTest : public TunnelTest {
protected:
    static uint32_t count() { return HashCount(vyrwrap_global.tunnel_table); }

    static void replay() { EXPECT_EQ(vyrwrap_handle_ipsec_replayall(nullptr, 200), 0); }

    static void put_many(int number) {
        for (int i = 1; i <= number; i++)
            put("t" + std::to_string(1000 + i), static_cast<uint32_t>(i), i % 3);
    }
};

const std::string kRead = "vyrwrap_read_all_tunnels_from_dal";
const std::string kSend = "vyrwrap_send_all_tunnels_to_vyr: ";

TEST_F(TunnelReplayTest, SubscribesReadsAndSends) {
    put("a", 1, 1);
    replay();
    EXPECT_EQ(fake::dal_calls, (Texts{"dal_sub_command PSUBSCRIBE __keyspace@0__:/op/tunnel/*", "dal_sync_ctx_chk",
                                      "dal_scan /op/tunnel/*", "dal_hgetall /op/tunnel/a"}));
    EXPECT_EQ(received(), Texts{"9 a"});
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>:vyrwrap_handle_ipsec_replayall: Entered, last_name:NULL, max_count:200"});
}

TEST_F(TunnelReplayTest, PrintsALastNameAndDoesNotUseIt) {
    put("a", 1);
    put("b", 2);
    EXPECT_EQ(vyrwrap_handle_ipsec_replayall("a", 7), 0);
    EXPECT_EQ(errors(), Texts{"<VYRWRAP>:vyrwrap_handle_ipsec_replayall: Entered, last_name:a, max_count:7"});
    EXPECT_EQ(received(), (Texts{"1 a", "1 b"}));
}

TEST_F(TunnelReplayTest, GoesOnWithoutTheSubscription) {
    put("a", 1);
    fake::failing_calls.insert("dal_sub_command");
    replay();
    EXPECT_EQ(received(), Texts{"1 a"});
}

/* ---- reading ---- */

TEST_F(TunnelReplayTest, ReportsEachStepOfTheReading) {
    put("a", 1);
    put("bb", 2);
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_EQ(infos(), (Texts{"<VYRWRAP>:" + kRead + ": do scan for pattern /op/tunnel/*",
                              "<VYRWRAP>:" + kRead + ": dal_scan(): num of tunnel keys:2",
                              "<VYRWRAP>:" + kRead + ":tunnel 1: /op/tunnel/a (name len:12)",
                              "<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name: a",
                              "<VYRWRAP>:" + kRead + ":tunnel 2: /op/tunnel/bb (name len:13)",
                              "<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name: bb"}));
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(fake::call_count("sendto"), 0);
}

TEST_F(TunnelReplayTest, StopsReadingWithoutAConnectionAndSendsWhatItHas) {
    hset("a", 1);
    put("b", 2);
    received();
    fake::log_lines.clear();
    fake::dal_calls.clear();
    fake::failing_calls.insert("dal_sync_ctx_chk");
    replay();
    EXPECT_EQ(errors().back(), "<VYRWRAP>:" + kRead + ": dal_sync_ctx_chk() returned error(-1)");
    EXPECT_EQ(fake::dal_calls.back(), "dal_sync_ctx_chk");
    EXPECT_EQ(received(), Texts{"1 a"});
}

TEST_F(TunnelReplayTest, StopsReadingWhenTheScanFailsAndSendsWhatItHas) {
    hset("a", 1);
    put("b", 2);
    received();
    fake::log_lines.clear();
    fake::failing_calls.insert("dal_scan");
    replay();
    EXPECT_EQ(errors().back(), "<VYRWRAP>:" + kRead + ": dal_scan() returned error(-1)");
    EXPECT_FALSE(fake::logged(6, "<VYRWRAP>:" + kRead + ": dal_scan(): num of tunnel keys:0"));
    EXPECT_EQ(received(), Texts{"1 a"});
}

TEST_F(TunnelReplayTest, StopsReadingWithoutMemoryForTheList) {
    put("a", 1);
    fake::fail_call("calloc", ENOMEM);
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_EQ(count(), 0U);
}

TEST_F(TunnelReplayTest, SkipsAKeyWhoseNameIsTooLongWithoutCountingIt) {
    const std::string long_key = "/op/tunnel/b" + std::string(200, 'x');
    put("a", 1);
    fake::hashes[long_key] = tunnel_fields("b", 2, 0);
    put("c", 3);
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_EQ(errors(), (Texts{"<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name(201) is larger than max len(200)",
                               kRead + ":Failed to extract tunnel name from tunnel key(" + long_key + ")"}));
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP>:" + kRead + ":tunnel 2: " + long_key + " (name len:212)"));
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP>:" + kRead + ":tunnel 2: /op/tunnel/c (name len:12)"));
    EXPECT_EQ(count(), 2U);
}

TEST_F(TunnelReplayTest, KeepsANameOfTwoHundredCharactersReadThroughItsCutKey) {
    const std::string name(200, 'n');
    put(name, 1, 1);
    put(name.substr(0, 180), 2);
    vyrwrap_read_all_tunnels_from_dal();
    const vpninfo *tunnel = vyrwrap_find_tunnel(name.c_str());
    ASSERT_NE(tunnel, nullptr);
    EXPECT_EQ(tunnel->mapid, 2U);
}

TEST_F(TunnelReplayTest, SkipsATunnelThatCannotBeReadAndCountsIt) {
    put("a", 1);
    fake::hashes["/op/tunnel/b"] = {{"mapid", "2"}};
    put("c", 3);
    fake::strings["/op/tunnel/d"] = "no hash";
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_TRUE(fake::logged(3, kRead + ": Error reading tunnel(b) info from DAL"));
    EXPECT_TRUE(fake::logged(3, kRead + ": Error reading tunnel(d) info from DAL"));
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP>:" + kRead + ":tunnel 3: /op/tunnel/c (name len:12)"));
    EXPECT_EQ(count(), 2U);
}

TEST_F(TunnelReplayTest, SkipsATunnelWithoutMemoryForItsRecord) {
    put("a", 1);
    put("b", 2);
    fake::on_log = [](const fake::LogLine &line) {
        if (line.text == "<VYRWRAP>:extract_tun_name_from_tun_key:tunnel name: a")
            fake::fail_call("calloc", ENOMEM);
    };
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_EQ(errors(), Texts{kRead + ":Failed to allocate memory for tunnel:a"});
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP>:" + kRead + ":tunnel 1: /op/tunnel/b (name len:12)"));
    EXPECT_EQ(count(), 1U);
}

TEST_F(TunnelReplayTest, LosesNothingButTheTunnelThatTheTableHasNoMemoryFor) {
    put("a", 1);
    put("b", 2);
    fake::on_log = [](const fake::LogLine &line) {
        if (line.text ==
            "<VYRWRAP>: vyrwrap_read_tunnel_info_all_param_from_dal: Completed reading "
            "tun:/op/tunnel/a from DAL")
            fake::fail_call("calloc", ENOMEM);
    };
    vyrwrap_read_all_tunnels_from_dal();
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(vyrwrap_find_tunnel("a"), nullptr);
    EXPECT_NE(vyrwrap_find_tunnel("b"), nullptr);
}

TEST_F(TunnelReplayTest, KeepsOneRecordANameHoweverOftenItIsRead) {
    hset("a", 1);
    put("a", 1, 1);
    replay();
    replay();
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(vyrwrap_find_tunnel("a")->tunnel_status, 1);
    hset("a", 1, 0);
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(received(), (Texts{"1 a", "9 a", "9 a", "5 a"}));
}

TEST_F(TunnelReplayTest, AppliesNoMapidRuleWhileReading) {
    put("a", 5);
    put("b", 5);
    replay();
    EXPECT_EQ(received(), (Texts{"1 a", "1 b"}));
}

TEST_F(TunnelReplayTest, KeepsATunnelThatIsNoLongerInTheDal) {
    hset("a", 1);
    received();
    fake::hashes.clear();
    replay();
    EXPECT_EQ(received(), Texts{"1 a"});
}

/* ---- sending ---- */

TEST_F(TunnelReplayTest, SendsNothingForAnEmptyTable) {
    replay();
    EXPECT_EQ(infos().back(), kSend + "tot-tunnels:0, packed:0, failed:0");
    EXPECT_EQ(fake::call_count("sendto"), 0);
    EXPECT_EQ(errors().size(), 1U) << "more than the line that the request itself is logged with";
}

TEST_F(TunnelReplayTest, DoesNothingWithoutATable) {
    leave_table();
    vyrwrap_send_all_tunnels_to_vyr(200);
    EXPECT_TRUE(fake::log_lines.empty());
    put("a", 1);
    replay();
    EXPECT_TRUE(received().empty());
}

TEST_F(TunnelReplayTest, ReplaysByStatusWithTheRecordsBackToBack) {
    put("a", 1, 0);
    put("b", 2, 1);
    put("c", 3, 2);
    replay();
    const Texts datagrams = app_.receive();
    ASSERT_EQ(datagrams.size(), 1U);
    const std::string &datagram = datagrams[0];
    ASSERT_EQ(datagram.size(), 3U * 348U);
    std::string expected;
    for (const char *name : {"a", "b", "c"}) {
        const vpninfo *record = vyrwrap_find_tunnel(name);
        RoutingAppMsg message;
        vyrwrap_prep_tunnel_msg_for_vyr(record, record->tunnel_status == 1 ? 9 : 1, &message);
        expected.append(reinterpret_cast<const char *>(&message), sizeof message);
    }
    EXPECT_EQ(datagram, expected);
    EXPECT_EQ(fake::byte_at(datagram, 348 + 339), 1);
    EXPECT_EQ(fake::word_at(datagram, 348 + 332), 66U | 32U);
    EXPECT_EQ(fake::byte_at(datagram, 2 * 348 + 339), 0);
    EXPECT_EQ(fake::word_at(datagram, 2 * 348 + 332), 66U);
    EXPECT_EQ(infos().back(), kSend + "tot-tunnels:3, packed:3, failed:0");
}

TEST_F(TunnelReplayTest, SendsTwoHundredTunnelsAsOneDatagram) {
    put_many(200);
    replay();
    const Texts datagrams = app_.receive();
    ASSERT_EQ(datagrams.size(), 1U);
    ASSERT_EQ(datagrams[0].size(), 69600U);
    for (size_t i = 0; i < 200; i++)
        EXPECT_EQ(fake::word_at(datagrams[0], i * 348 + 312), i + 1);
    EXPECT_EQ(infos().back(), kSend + "tot-tunnels:200, packed:200, failed:0");
    EXPECT_EQ(fake::call_count("sendto"), 1);
}

TEST_F(TunnelReplayTest, RefusesMoreTunnelsThanTheLimitWhole) {
    put_many(201);
    replay();
    EXPECT_EQ(errors().back(), kSend + "total tunnels(201) exceeds max tunnels(200), needs rework");
    EXPECT_EQ(fake::call_count("sendto"), 0);
    EXPECT_EQ(count(), 201U);
    notify("t1001", "del");
    received();
    vyrwrap_send_all_tunnels_to_vyr(200);
    EXPECT_EQ(received().size(), 200U);
}

TEST_F(TunnelReplayTest, StopsSilentlyWithoutMemoryForTheDatagram) {
    hset("a", 1);
    received();
    fake::log_lines.clear();
    fake::fail_call("calloc", ENOMEM);
    vyrwrap_send_all_tunnels_to_vyr(200);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_TRUE(received().empty());
}

TEST_F(TunnelReplayTest, ReportsADatagramThatCannotBeSent) {
    put("a", 1);
    fake::fail_call("sendto", ENOBUFS);
    replay();
    EXPECT_EQ(errors().back(), kSend + "Failed to send tunnel message to VYR-APP (ret:-1)");
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(fake::call_count("sendto"), 1);
}

TEST_F(TunnelReplayTest, ReportsADatagramOfWhichNothingWasSent) {
    put("a", 1);
    fake::on_sendto = [](long *result) {
        *result = 0;
        return true;
    };
    replay();
    EXPECT_EQ(errors().back(), kSend + "Failed to send tunnel message to VYR-APP (ret:0)");
}

TEST_F(TunnelReplayTest, OutlivesEveryFailureOfAnAllocation) {
    for (uint32_t i = 1; i <= 20; i++)
        put("t" + std::to_string(i), i);
    const auto all = [] {
        replay();
        hset("new", 99);
        fake::hashes.erase("/op/tunnel/new");
        notify("new", "del");
    };
    fake::with_every_allocation_failing(all, [this, all] {
        received();
        all();
        EXPECT_EQ(count(), 20U);
        EXPECT_EQ(received().size(), 22U);
        fake::log_lines.clear();
    });
}

}  // namespace
