/* Long runs: against a simple model of table and opcodes, and for what they leave behind. */
#include <random>

#include "fakes/resources.h"
#include "rpapp/link.h"
#include "tunnel/fixture.h"
#include "tunnel/tunnel_table.h"

namespace {

/** What the table should hold, and what the application should have been told, by the plainest means. */
struct Model {
    struct Tunnel {
        std::string key;
        std::string name;
        uint32_t mapid;
        int status;
    };

    std::vector<Tunnel> table; /**< in order of insertion */
    Texts sent;

    Tunnel *find(const std::string &key) {
        for (Tunnel &tunnel : table)
            if (tunnel.key == key)
                return &tunnel;
        return nullptr;
    }

    void tell(int opcode, const Tunnel &tunnel) { sent.push_back(std::to_string(opcode) + " " + tunnel.name); }

    void insert(const Tunnel &tunnel) {
        if (Tunnel *old = find(tunnel.key))
            *old = tunnel;
        else
            table.push_back(tunnel);
    }

    /** A tunnel named otherwise than its key stays. */
    void remove(size_t index) {
        tell(2, table[index]);
        if (table[index].key == table[index].name)
            table.erase(table.begin() + static_cast<long>(index));
    }

    void hset(const Tunnel &tunnel) {
        Tunnel *old = find(tunnel.key);
        if (old && old->mapid == tunnel.mapid) {
            tell(old->status == tunnel.status ? 3 : tunnel.status == 1 ? 4 : 5, tunnel);
            *old = tunnel;
            return;
        }
        if (old)
            remove(static_cast<size_t>(old - table.data()));
        for (size_t i = 0; i < table.size(); i++)
            if (table[i].mapid == tunnel.mapid) {
                remove(i);
                break;
            }
        insert(tunnel);
        tell(tunnel.status == 1 ? 9 : 1, tunnel);
    }

    void del(const std::string &key) {
        if (Tunnel *old = find(key))
            remove(static_cast<size_t>(old - table.data()));
    }

    void replay(const std::map<std::string, Tunnel> &dal) {
        for (const auto &[key, tunnel] : dal)
            insert(tunnel);
        for (const Tunnel &tunnel : table)
            tell(tunnel.status == 1 ? 9 : 1, tunnel);
    }

    Texts content() const {
        Texts texts;
        for (const Tunnel &tunnel : table)
            texts.push_back(tunnel.name + " " + std::to_string(tunnel.mapid) + " " + std::to_string(tunnel.status));
        return texts;
    }
};

Texts table_content() {
    Texts texts;
    HashTable *table = vyrwrap_global.tunnel_table;
    for (void *entry = HashGet(table, HASH_FIRST); entry; entry = HashGet(table, HASH_NEXT)) {
        const auto *record = static_cast<const vpninfo *>(entry);
        texts.push_back(std::string(record->tunnel_name) + " " + std::to_string(record->mapid) + " " +
                        std::to_string(record->tunnel_status));
    }
    return texts;
}

class TunnelModelTest : public TunnelTest {
protected:
    /** From 0 to `count` - 1. */
    uint32_t random(uint32_t count) { return static_cast<uint32_t>(generator_()) % count; }

    /** One random operation, done to the daemon and to the model. */
    void step() {
        const std::string key = "t" + std::to_string(random(12));
        const auto kind = random(20);
        if (kind < 13) {
            const std::string name = random(8) ? key : "t" + std::to_string(random(14));
            const bool same_mapid = dal_.count(key) && random(2);
            const uint32_t mapid = same_mapid ? dal_[key].mapid : random(16) + 1;
            const Model::Tunnel tunnel = {key, name, mapid, static_cast<int>(random(3))};
            dal_[key] = tunnel;
            fake::hashes["/op/tunnel/" + key] = tunnel_fields(tunnel.name, tunnel.mapid, tunnel.status);
            if (kind < 12) {  // else the notification was missed
                notify(key, "hset");
                model_.hset(tunnel);
            }
        } else if (kind < 16) {
            dal_.erase(key);
            fake::hashes.erase("/op/tunnel/" + key);
            notify(key, "del");
            model_.del(key);
        } else if (kind < 17) {
            notify(key, "hdel");
        } else if (kind < 18) {
            // A hash that is not complete changes nothing.
            const auto kept = fake::hashes;
            fake::hashes["/op/tunnel/" + key].erase("mask");
            notify(key, "hset");
            fake::hashes = kept;
        } else {
            request_replay();
            model_.replay(dal_);
        }
    }

    void request_replay() {
        ASSERT_TRUE(app_.send(fake::word(0) + fake::word(2) + fake::word(1) + fake::word(6)));
        ASSERT_EQ(fake::input_ready(vyrwrap_global.app_sock_fd, DISP_READ), 0);
    }

    std::mt19937 generator_{43};
    std::map<std::string, Model::Tunnel> dal_; /**< sorted by key, as a scan is */
    Model model_;
};

TEST_F(TunnelModelTest, MatchesAModelOfTableAndOpcodesInTenThousandSteps) {
    std::map<std::string, int> opcodes;
    for (int i = 0; i < 10000; i++) {
        step();
        const Texts told = received();
        ASSERT_EQ(told, model_.sent) << "step " << i;
        ASSERT_EQ(table_content(), model_.content()) << "step " << i;
        for (const std::string &record : told)
            opcodes[record.substr(0, record.find(' '))]++;
        model_.sent.clear();
        fake::log_lines.clear();
        fake::dal_calls.clear();
    }
    // The run was worth its time: every opcode came up often.
    for (const char *opcode : {"1", "2", "3", "4", "5", "9"})
        EXPECT_GT(opcodes[opcode], 100) << opcode;
}

TEST_F(TunnelModelTest, UsesNoMoreAfterAHundredThousandNotifications) {
    fake::set_log_level(3);
    size_t memory = 0;
    size_t descriptors = 0;
    const auto settle = [&] {
        // The same content at both measurements, with nothing on the way and nothing recorded.
        for (int i = 0; i < 12; i++) {
            hset("t" + std::to_string(i), static_cast<uint32_t>(i + 100));
            app_.receive();
        }
        request_replay();
        app_.receive();
        std::vector<fake::LogLine>().swap(fake::log_lines);
        Texts().swap(fake::dal_calls);
    };
    for (int i = 1; i <= 100000; i++) {
        const std::string name = "t" + std::to_string(random(12));
        if (random(4))
            hset(name, random(16) + 1, static_cast<int>(random(3)));
        else
            notify(name, "del");
        if (i % 5000 == 0)
            request_replay();
        app_.receive();
        fake::log_lines.clear();
        fake::dal_calls.clear();
        if (i == 1000) {
            settle();
            memory = fake::memory_in_use();
            descriptors = fake::open_descriptors();
        }
    }
    settle();
    // The allocator's own rounding comes and goes; one byte lost a notification would be 99,000.
    EXPECT_LE(fake::memory_in_use(), memory + 4096);
    EXPECT_EQ(fake::open_descriptors(), descriptors);
}

}  // namespace
