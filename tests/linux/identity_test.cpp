#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/cmnutil.h"
#include "platform/korvalog.h"
#include "support.h"

namespace {

constexpr char kLog[] = "/tmp/identity.log";
constexpr char kMachineId[] = "/etc/machine-id";

class Identity : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("KORVA_MAC");
        unsetenv("KORVA_SERIAL");
        unlink(kLog);
        unlink(kMachineId);
        setenv("KORVA_LOG", "file:/tmp/identity.log", 1);
        korvaLogInit(712, "vyr", 4);
    }

    static std::string mac() {
        uint8_t bytes[6] = {9, 9, 9, 9, 9, 9};
        int selector = 0;
        char text[32];
        if (get_mac_addr(bytes, sizeof bytes, &selector, 0) != 0)
            return "(none)";
        snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                 bytes[5]);
        return text;
    }

    static std::string serial(int size = 33) {
        char text[64];
        memset(text, '#', sizeof text);
        if (get_ap_serial_num(text, size) != 0)
            return text[0] ? "(not cleared)" : "(none)";
        EXPECT_EQ(text[strlen(text) + 1], '#');
        return text;
    }

    static void run(const char *command) { ASSERT_EQ(system(command), 0) << command; }
};

TEST_F(Identity, TakesTheMacOfTheEnvironment) {
    setenv("KORVA_MAC", "02:1B:2c:3d:4e:5f", 1);
    EXPECT_EQ(mac(), "02:1b:2c:3d:4e:5f");
    EXPECT_EQ(support::read_file(kLog), "");
}

TEST_F(Identity, HasNoMacWhereThereIsNoEthernetInterface) {
    EXPECT_EQ(mac(), "(none)");  // the sandbox has the loopback interface alone
}

TEST_F(Identity, TakesTheEthernetInterfaceOfTheLowestIndex) {
    run("ip link add second index 70 address 02:00:00:00:00:02 type veth "
        "peer name first index 60 address 02:00:00:00:00:01");
    EXPECT_EQ(mac(), "02:00:00:00:00:01");
    for (const char *malformed : {"02:1b:2c:3d:4e", "nonsense\n"}) {
        unlink(kLog);
        korvaLogInit(712, "vyr", 4);
        setenv("KORVA_MAC", malformed, 1);
        EXPECT_EQ(mac(), "02:00:00:00:00:01");
        const bool has_newline = strchr(malformed, '\n');
        EXPECT_EQ(support::read_file(kLog), std::string("3 416 0 <IDENTITY>: KORVA_MAC \"") +
                                                (has_newline ? "nonsense\\n" : malformed) + "\" is no MAC address\n");
    }
    setenv("KORVA_MAC", "", 1);  // as good as not set
    unlink(kLog);
    korvaLogInit(712, "vyr", 4);
    EXPECT_EQ(mac(), "02:00:00:00:00:01");
    EXPECT_EQ(support::read_file(kLog), "");
    run("ip link del first");
}

TEST_F(Identity, RefusesABufferThatAMacDoesNotFit) {
    uint8_t bytes[6] = {9, 9, 9, 9, 9, 9};
    setenv("KORVA_MAC", "02:1b:2c:3d:4e:5f", 1);
    EXPECT_EQ(get_mac_addr(bytes, 5, nullptr, 0), -1);
    EXPECT_EQ(bytes[0], 9);
    EXPECT_EQ(get_mac_addr(nullptr, 6, nullptr, 0), -1);
}

TEST_F(Identity, TakesTheSerialOfTheEnvironment) {
    setenv("KORVA_SERIAL", "SN-1234.5/x", 1);
    EXPECT_EQ(serial(), "SN-1234.5/x");
}

TEST_F(Identity, CutsTheSerialToItsBuffer) {
    setenv("KORVA_SERIAL", "0123456789012345678901234567890123456789", 1);
    EXPECT_EQ(serial(33), "01234567890123456789012345678901");
    EXPECT_EQ(serial(2), "0");
    EXPECT_EQ(serial(1), "");
    char text[1] = {'#'};
    EXPECT_EQ(get_ap_serial_num(text, 0), -1);
    EXPECT_EQ(text[0], '#');
    EXPECT_EQ(get_ap_serial_num(nullptr, 33), -1);
}

TEST_F(Identity, IgnoresASerialThatCannotStandBetweenQuotes) {
    std::ofstream(kMachineId) << "0123456789abcdef0123456789abcdef\n";
    for (const std::string malformed : {"a\"b", "two words", "line\n", "back\\slash", "gr\xc3\xbc", "none"}) {
        unlink(kLog);
        korvaLogInit(712, "vyr", 4);
        setenv("KORVA_SERIAL", malformed.c_str(), 1);
        EXPECT_EQ(serial(), "0123456789abcdef0123456789abcdef") << malformed;
        EXPECT_EQ(support::lines_of(kLog).size(), 1U);
    }
    setenv("KORVA_SERIAL", std::string(64, 'x').c_str(), 1);
    EXPECT_EQ(serial(), "0123456789abcdef0123456789abcdef");
}

TEST_F(Identity, HasNoSerialWhereTheMachineHasNone) {
    EXPECT_EQ(serial(), "(none)");
    for (const char *text : {"", "\n", "Default string\n", "None\n"}) {
        std::ofstream(kMachineId, std::ios::trunc) << text;
        EXPECT_EQ(serial(), "(none)") << text;
    }
    std::ofstream(kMachineId, std::ios::trunc) << std::string(64, 'x');  // never cut into something valid
    EXPECT_EQ(serial(), "(none)");
}

TEST_F(Identity, PrefersTheBoardsSerialToTheProductsAndToTheInstallations) {
    std::ofstream(kMachineId) << "installation\n";
    EXPECT_EQ(serial(), "installation");
    run("mkdir -p /sys/class/dmi/id");
    std::ofstream("/sys/class/dmi/id/product_serial") << "PRODUCT\n";
    EXPECT_EQ(serial(), "PRODUCT");
    std::ofstream("/sys/class/dmi/id/board_serial") << "To be filled by O.E.M.\n";
    EXPECT_EQ(serial(), "PRODUCT");
    std::ofstream("/sys/class/dmi/id/board_serial", std::ios::trunc) << "BOARD\n";
    EXPECT_EQ(serial(), "BOARD");
    run("rm -r /sys/class/dmi");
}

}  // namespace
