#include "vlan/vlan_relay.h"

#include <errno.h>

#include <atomic>
#include <thread>

#include "fakes/fakes.h"
#include "fakes/routing_app.h"

namespace {

using Texts = std::vector<std::string>;

constexpr char kPattern[] = "__keyspace@0__:/op/vlans/route*";
constexpr char kCallback[] = "<VYRWRAP>: vyrwrap_VlanIfaceInfo_subs_callback: ";
constexpr char kScan[] = "<VYRWRAP>:vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal:";
constexpr char kPath[] = "/op/vlans/route{10.1.1.1:255.255.255.0:12}";
constexpr char kVlan[] = "<VYRWRAP>: vyrwrap_read_vlan_interface_info_from_path: 112: vlan ";

/** The one message that stands for a VLAN. */
std::string message(uint32_t opcode, uint32_t vlan, uint32_t ip, uint32_t netmask) {
    return fake::word(0) + fake::word(1) + fake::word(2) + fake::word(opcode) + fake::word(vlan) + fake::word(ip) +
           fake::word(netmask) + std::string(320, '\0');
}

class VlanRelayTest : public fake::RoutingAppTest {
protected:
    static void notify(const std::string &key, const std::string &event) {
        const fake::Reply reply({"pmessage", kPattern, "__keyspace@0__:" + key, event});
        vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), reply.get(), nullptr);
    }

    static std::string notified(const std::string &channel, int elements = 4) {
        return kCallback + ("156: keyspace pattern " + channel) + ", reply->elements " + std::to_string(elements) +
               "\n";
    }
};

TEST_F(VlanRelayTest, SendsTheRecordAsOneMessage) {
    const vlan_Iface record = {4, 0x0fff, 0x0A010203, 0xFFFFFF00};
    vyrwrap_send_VlanIfaceInfo_to_vyr(&record);
    const Texts datagrams = app_.receive();
    ASSERT_EQ(datagrams.size(), 1U);
    const std::string &bytes = datagrams[0];
    ASSERT_EQ(bytes.size(), 348U);
    EXPECT_EQ(fake::half_at(bytes, 0), 0U);
    EXPECT_EQ(fake::half_at(bytes, 2), 0U);
    EXPECT_EQ(fake::word_at(bytes, 4), 1U);
    EXPECT_EQ(fake::word_at(bytes, 8), 2U);
    EXPECT_EQ(fake::word_at(bytes, 12), 4U);
    EXPECT_EQ(fake::word_at(bytes, 16), 4095U);
    EXPECT_EQ(fake::word_at(bytes, 20), 0x0A010203U);
    EXPECT_EQ(fake::word_at(bytes, 24), 0xFFFFFF00U);
    EXPECT_EQ(bytes.substr(28), std::string(320, '\0'));
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(VlanRelayTest, LogsAFailedSendWithTheTunnelsWording) {
    const vlan_Iface record = {4, 1, 2, 3};
    fake::fail_call("sendto", EAGAIN);
    vyrwrap_send_VlanIfaceInfo_to_vyr(&record);
    EXPECT_EQ(fake::log_texts(3).back(),
              "vyrwrap_send_VlanIfaceInfo_to_vyr: Failed to send tunnel message to VYR-APP (ret:-1)");
}

TEST_F(VlanRelayTest, ASendOfNothingIsAFailedSend) {
    const vlan_Iface record = {4, 1, 2, 3};
    fake::on_sendto = [](long *result) {
        *result = 0;
        return true;
    };
    vyrwrap_send_VlanIfaceInfo_to_vyr(&record);
    EXPECT_EQ(fake::log_texts(3),
              Texts{"vyrwrap_send_VlanIfaceInfo_to_vyr: Failed to send tunnel message to VYR-APP (ret:0)"});
}

TEST_F(VlanRelayTest, SubscribesToTheVlanKeys) {
    EXPECT_EQ(vyrwrap_VlanIfaceInfo_subscribe(), 0);
    EXPECT_EQ(fake::dal_calls, Texts{"dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vlans/route*"});
    EXPECT_EQ(fake::subscriptions.at(kPattern).callback, vyrwrap_VlanIfaceInfo_subs_callback);
    EXPECT_EQ(fake::log_texts(6), Texts{"<VYRWRAP>:vyrwrap_VlanIfaceInfo_subscribe:278 subscribed dal for (PSUBSCRIBE "
                                        "__keyspace@0__:/op/vlans/route*) done"});
}

TEST_F(VlanRelayTest, LogsAFailedSubscription) {
    fake::failing_calls = {"dal_sub_command"};
    EXPECT_EQ(vyrwrap_VlanIfaceInfo_subscribe(), -1);
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>:vyrwrap_VlanIfaceInfo_subscribe:277 Failed to subscribe dal for (PSUBSCRIBE "
                    "__keyspace@0__:/op/vlans/route*)"});
}

TEST_F(VlanRelayTest, AReplaySubscribesThenSendsEveryVlanAndSkipsTheKeysThatAreNone) {
    fake::strings["/op/vlans/route_redistributed_vlans"] = "{10}";
    fake::strings["/op/vlans/route{10.2.0.1:255.255.0.0:2}"] = "";
    fake::strings["/op/vlans/route{10.1.0.1:255.255.0.0:1}"] = "";
    fake::strings["/op/vlans/route{10.3.0.1:255.255.0.0:4096}"] = "";
    fake::strings["/op/other{10.4.0.1:255.255.0.0:4}"] = "";
    vyrwrap_handle_VlanIfaceInfo_replayall();
    EXPECT_EQ(fake::dal_calls,
              (Texts{"dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vlans/route*", "dal_scan /op/vlans/route*"}));
    EXPECT_EQ(app_.receive(), (Texts{message(4, 1, 0x0A010001, 0xFFFF0000), message(4, 2, 0x0A020001, 0xFFFF0000)}));
    const std::string scan = kScan;
    EXPECT_EQ(fake::log_texts(6),
              (Texts{"<VYRWRAP>:vyrwrap_handle_VlanIfaceInfo_replayall: Entered",
                     "<VYRWRAP>:vyrwrap_VlanIfaceInfo_subscribe:278 subscribed dal for (PSUBSCRIBE "
                     "__keyspace@0__:/op/vlans/route*) done",
                     scan + "Vlan key 1: /op/vlans/route_redistributed_vlans (vlan key len:35)",
                     scan + "Vlan key 1: /op/vlans/route{10.1.0.1:255.255.0.0:1} (vlan key len:39)",
                     kVlan + std::string("1, vlan opcode 4, ipaddr 10.1.0.1, netmask 255.255.0.0"),
                     scan + "Vlan key 1: /op/vlans/route{10.2.0.1:255.255.0.0:2} (vlan key len:39)",
                     kVlan + std::string("2, vlan opcode 4, ipaddr 10.2.0.1, netmask 255.255.0.0"),
                     scan + "Vlan key 1: /op/vlans/route{10.3.0.1:255.255.0.0:4096} (vlan key len:42)"}));
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: Error in Path, no '{' symbol",
                     scan + "221: Error in extracting vlan parameters from path /op/vlans/route_redistributed_vlans",
                     "<VYRWRAP>: vyrwrap_read_vlan_interface_info_from_path: 107: Invalid vlan 4096",
                     scan + "221: Error in extracting vlan parameters from path "
                            "/op/vlans/route{10.3.0.1:255.255.0.0:4096}"}));
}

TEST_F(VlanRelayTest, AReplayGoesOnWhenTheSubscriptionFailedAndRepeatsItNextTime) {
    fake::strings[kPath] = "";
    fake::failing_calls = {"dal_sub_command"};
    vyrwrap_handle_VlanIfaceInfo_replayall();
    EXPECT_EQ(app_.receive().size(), 1U);
    fake::failing_calls.clear();
    fake::dal_calls.clear();
    vyrwrap_handle_VlanIfaceInfo_replayall();
    EXPECT_EQ(fake::dal_calls.front(), "dal_sub_command PSUBSCRIBE __keyspace@0__:/op/vlans/route*");
}

TEST_F(VlanRelayTest, AFailedScanIsLoggedAndWhatItFoundIsSent) {
    fake::strings[kPath] = "";
    fake::failing_calls = {"dal_scan"};
    vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();
    EXPECT_EQ(app_.receive(), Texts{message(4, 12, 0x0A010101, 0xFFFFFF00)});
    EXPECT_EQ(fake::log_texts(3), Texts{std::string(kScan) + " dal_scan() returned error(-1)"});
}

TEST_F(VlanRelayTest, WithoutMemoryForTheListTheReplayIsGivenUp) {
    fake::strings[kPath] = "";
    fake::fail_call("calloc", ENOMEM);
    fake::fail_call("malloc", ENOMEM);
    vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();
    fake::fail_call("malloc", 0, 0, 0);
    EXPECT_TRUE(fake::dal_calls.empty());
    EXPECT_EQ(fake::log_texts(3), Texts{std::string(kScan) + " Failed to create the list of keys"});
}

TEST_F(VlanRelayTest, AFailedSendSkipsOnlyItsVlan) {
    fake::strings["/op/vlans/route{10.1.0.1:255.255.0.0:1}"] = "";
    fake::strings["/op/vlans/route{10.2.0.1:255.255.0.0:2}"] = "";
    fake::fail_call("sendto", EAGAIN);
    vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();
    EXPECT_EQ(app_.receive(), Texts{message(4, 2, 0x0A020001, 0xFFFF0000)});
}

TEST_F(VlanRelayTest, AReplayOf300VlansIs300DatagramsAllNumbered1) {
    for (int i = 1; i <= 300; i++)
        fake::strings["/op/vlans/route{10.0.1.1:255.255.255.0:" + std::to_string(i) + "}"] = "";
    Texts datagrams;
    const auto take = [&] {
        for (std::string &datagram : app_.receive())
            datagrams.push_back(std::move(datagram));
    };
    std::atomic<bool> sent = false;
    std::thread reader([&] {
        while (!sent)
            take();
    });
    vyrwrap_read_and_send_all_VlanIfaceInfo_from_dal();
    sent = true;
    reader.join();
    take();
    std::set<uint32_t> ids;
    for (const std::string &datagram : datagrams) {
        EXPECT_EQ(datagram.size(), 348U);
        ids.insert(fake::word_at(datagram, 16));
    }
    EXPECT_EQ(ids.size(), 300U);
    int numbered = 0;
    for (const std::string &text : fake::log_texts(6))
        numbered += text.find("Vlan key 1: /op/vlans/route{") != std::string::npos;
    EXPECT_EQ(numbered, 300);
}

TEST_F(VlanRelayTest, AnAnnouncedVlanIsSentWithOpcode4) {
    notify(kPath, "set");
    EXPECT_EQ(app_.receive(), Texts{message(4, 12, 0x0A010101, 0xFFFFFF00)});
    EXPECT_EQ(fake::log_texts(6),
              (Texts{notified("__keyspace@0__:" + std::string(kPath)),
                     kVlan + std::string("12, vlan opcode 4, ipaddr 10.1.1.1, netmask 255.255.255.0")}));
    EXPECT_TRUE(fake::log_texts(3).empty());
    EXPECT_TRUE(fake::dal_calls.empty());
}

TEST_F(VlanRelayTest, AWithdrawnVlanIsSentWithOpcode5AsItsKeySpellsIt) {
    notify(kPath, "del");
    EXPECT_EQ(app_.receive(), Texts{message(5, 12, 0x0A010101, 0xFFFFFF00)});
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(VlanRelayTest, ALifetimeIsIgnored) {
    notify(kPath, "expire");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_TRUE(fake::log_texts(3).empty());
}

TEST_F(VlanRelayTest, AnyOtherEventIsRefused) {
    notify(kPath, "append");
    notify(kPath, "hset");
    notify(kPath, "lpush");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3), (Texts{kCallback + std::string("175: Unexpected notify_action (3)"),
                                         kCallback + std::string("175: Unexpected notify_action (9)"),
                                         kCallback + std::string("175: Unexpected notify_action (0)")}));
}

TEST_F(VlanRelayTest, TheRedistributedVlansKeyIsNoVlan) {
    notify("/op/vlans/route_redistributed_vlans", "set");
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3),
              (Texts{"<VYRWRAP>: Error in Path, no '{' symbol",
                     "<VYRWRAP>:vyrwrap_read_vlan_interface_info_from_notify_key:137: Error in extracting vlan "
                     "parameters from path /op/vlans/route_redistributed_vlans"}));
}

TEST_F(VlanRelayTest, ANullReplyIsIgnored) {
    vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(VlanRelayTest, AReplyWithoutFourElementsIsRefused) {
    const fake::Reply two({"pmessage", kPattern});
    vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), two.get(), nullptr);
    const fake::Reply three({"pmessage", kPattern, "channel"});
    vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), three.get(), nullptr);
    EXPECT_EQ(fake::log_texts(6), (Texts{notified("NULL", 2), notified("channel", 3)}));
    EXPECT_EQ(fake::log_texts(3), (Texts{kCallback + std::string("unexpected num of elements (2), expected 4\n"),
                                         kCallback + std::string("unexpected num of elements (3), expected 4\n")}));
}

TEST_F(VlanRelayTest, AReplyThatIsNoArrayIsRefused) {
    const fake::Reply reply({"pmessage", kPattern, "__keyspace@0__:" + std::string(kPath), "set"}, DAL_REPLY_STATUS);
    vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), reply.get(), nullptr);
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3),
              Texts{kCallback + std::string("163: reply type 5 not DAL_REPLY_ARRAY 2 returning\n")});
}

TEST_F(VlanRelayTest, AForeignChannelIsRefused) {
    fake::Reply reply({"pmessage", kPattern, "__keyspace@0__:/op/vlans/rout", "set"});
    vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), reply.get(), nullptr);
    reply.element(2)->str = nullptr;
    vyrwrap_VlanIfaceInfo_subs_callback(fake::context(), reply.get(), nullptr);
    EXPECT_TRUE(app_.receive().empty());
    EXPECT_EQ(fake::log_texts(3),
              (Texts{kCallback + std::string("169: REPLY_E_DATA_KEY __keyspace@0__:/op/vlans/rout doesn't match "
                                             "KEYSPACE_INTERFACE_VLAN_PREFIX __keyspace@0__:/op/vlans/route, "
                                             "returning\n"),
                     kCallback + std::string("169: REPLY_E_DATA_KEY NULL doesn't match "
                                             "KEYSPACE_INTERFACE_VLAN_PREFIX __keyspace@0__:/op/vlans/route, "
                                             "returning\n")}));
}

}  // namespace
