#include "cluster_fixture.h"
#include "fakes/bad_input.h"

namespace {

constexpr char kPrefix[] = "__keyspace@0__:/op/clusters/";
constexpr char kMac[] = "\x01\x02\x03\x04\x05\x06";
constexpr uint32_t kPeer = 0x0A090807;

/** A name that is its own format: only "%%" is a conversion without an argument. */
std::string formatted(const std::string &name) {
    std::string text;
    for (size_t i = 0; i < name.size(); i++) {
        if (name.compare(i, 2, "%%") == 0)
            i++;
        text += name[i];
    }
    return text;
}

class ClusterBadInputTest : public ClusterTest {
protected:
    void SetUp() override {
        ClusterTest::SetUp();
        add_tunnel("t", kPeer, kMac);
    }

    static void notify(const std::string &name, const std::string &event) {
        const fake::Reply reply({"pmessage", "__keyspace@0__:/op/clusters/*", kPrefix + name, event});
        vyrwrap_cluster_info_subs_callback(fake::context(), reply.get(), nullptr);
        fake::log_lines.clear();
    }

    std::mt19937 random_{2};
};

TEST_F(ClusterBadInputTest, ANameOfAnyBytesIsSentOrRefused) {
    for (int round = 0; round < 3000; round++) {
        const std::string characters = round % 2 ? fake::all_characters() : "%%%%sndx\"\n";
        const std::string name = fake::random_text(random_, characters, 40);
        const bool fits = !name.empty() && name.size() <= 32;
        const std::string sent_name = formatted(name);
        if (fits)
            set_cluster(name, "10.9.8.7", "1", 1);
        notify(name, "del");
        notify(name, "hset");
        const Texts expected = {message(2, sent_name, 0, 0, "", 0), message(1, sent_name, kPeer, 1, kMac, 1)};
        ASSERT_EQ(app_.receive(), fits ? expected : Texts()) << name;
        fake::hashes.clear();
    }
}

TEST_F(ClusterBadInputTest, AReplaySendsNamesOfAnyBytesAsTheyAre) {
    for (int round = 0; round < 1000; round++) {
        const std::string name = fake::random_text(random_, round % 2 ? fake::all_characters() : "%%%sn\"\n", 40);
        set_cluster(name, "10.9.8.7", "1", 1);
        vyrwrap_read_all_send_clusters_from_dal_to_vyr();
        const Texts expected = {message(1, name, kPeer, 1, kMac, 1)};
        ASSERT_EQ(app_.receive(), name.size() <= 32 ? expected : Texts()) << name;
        fake::hashes.clear();
        fake::log_lines.clear();
    }
}

TEST_F(ClusterBadInputTest, NodesOfAnyNumberAndLengthAreTakenOnlyWhereBothAgree) {
    for (int count = -1; count <= 300; count++) {
        for (size_t length = 0; length <= 700; length += count < 14 && length < 300 ? 1 : 97) {
            set_cluster("c", "10.9.8.7", "1", std::to_string(count), std::string(length, '\xff'));
            notify("c", "hset");
            const bool agree = count >= 1 && count <= 12 && length == 24 * static_cast<size_t>(count);
            const Texts datagrams = app_.receive();
            ASSERT_EQ(datagrams.size(), agree ? 1U : 0U) << count << " " << length;
            if (agree) {
                EXPECT_EQ(datagrams[0].substr(164, length), std::string(length, '\xff'));
            }
        }
    }
}

TEST_F(ClusterBadInputTest, FieldsOfAnyBytesAreReadOrRefused) {
    const std::string characters = fake::all_characters() + std::string(1, '\0');
    for (int round = 0; round < 3000; round++) {
        for (const char *field : {"ddg_ip", "cluster_state", "node_num", "nodelist"}) {
            fake::hashes["/op/clusters/c"][field] = fake::random_text(random_, characters, 20000 >> random_() % 12);
            if (random_() % 4 == 0)
                fake::hashes["/op/clusters/c"].erase(field);
        }
        notify("c", "hset");
        vyrwrap_read_all_send_clusters_from_dal_to_vyr();
        fake::log_lines.clear();
    }
    EXPECT_TRUE(app_.receive().empty());
    set_cluster("c", "10.9.8.7", "1", 2);
    notify("c", "hset");
    EXPECT_EQ(app_.receive(), Texts{message(1, "c", kPeer, 1, kMac, 2)});
}

TEST_F(ClusterBadInputTest, OnlyAWholeNotificationIsSent) {
    fake::for_each_reply(kPrefix + std::string("c"), "del",
                         [this](const dal_reply *reply, const fake::ReplyShape &shape) {
                             vyrwrap_cluster_info_subs_callback(fake::context(), reply, nullptr);
                             ASSERT_EQ(app_.receive().size(), shape.is_notification() ? 1U : 0U);
                             fake::log_lines.clear();
                         });
}

TEST_F(ClusterBadInputTest, ReplayAndNotificationOutliveEveryFailureOfAnAllocation) {
    for (int i = 0; i < 40; i++)
        set_cluster("c" + std::to_string(i), "10.9.8.7", "1", 12);
    int sent = 0;
    fake::on_sendto = [&sent](long *result) {
        sent++;
        *result = 636;
        return true;
    };
    const auto both = [] {
        vyrwrap_handle_ClusterInfo_replayall();
        notify("c1", "hset");
    };
    fake::with_every_allocation_failing(both, [&sent, both] {
        sent = 0;
        both();
        EXPECT_EQ(sent, 41);
    });
}

}  // namespace
