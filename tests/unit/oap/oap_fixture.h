/* The overlay's settings as at process start, around each test. */
#pragma once

#include <unistd.h>

#include "fakes/fakes.h"
#include "oap/oap_config.h"

class OapTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        oapCfg_g = {};
        unlink(kOapConfigPath);
    }

    /** The list as the writer sees it. */
    static std::vector<uint32_t> vlans() {
        return {oapCfg_g.redist_vlans, oapCfg_g.redist_vlans + oapCfg_g.redist_vlan_count};
    }

    static void set_vlans(const std::vector<uint32_t> &ids) {
        oapCfg_g.redist_vlan_count = 0;
        for (uint32_t id : ids)
            oapCfg_g.redist_vlans[oapCfg_g.redist_vlan_count++] = id;
    }

    static std::string file() { return fake::read_file(kOapConfigPath); }
};

using Texts = std::vector<std::string>;
