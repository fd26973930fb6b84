#include <errno.h>
#include <sys/stat.h>

#include "oap_fixture.h"

namespace {

constexpr char kTemplate[] = "/etc/bird/vyr_oap.conf";

class IdentityTest : public OapTest {
protected:
    void SetUp() override {
        OapTest::SetUp();
        mkdir("/etc/bird", 0755);
        rmdir(kTemplate);
        unlink(kTemplate);
    }

    void TearDown() override {
        rmdir(kTemplate);
        rmdir(kOapConfigPath);
        OapTest::TearDown();
    }

    /** Loads a template with the overlay on. Returns the file made of it. */
    static std::string filled_in(const std::string &content) {
        oapCfg_g.bEnable = 1;
        fake::write_file(kTemplate, content);
        EXPECT_EQ(oapReadIdentity(), 0);
        return file();
    }
};

TEST_F(IdentityTest, TakesMacAndSerialFromTheDevice) {
    fake::mac = std::string("\xAB\x0c\x00\xff\x10\x09", 6);
    fake::serial = "CNX1234567";
    fake::write_file(kTemplate, "");
    EXPECT_EQ(oapReadIdentity(), 0);
    EXPECT_STREQ(oapCfg_g.mac, "ab:0c:00:ff:10:09");
    EXPECT_STREQ(oapCfg_g.serial, "CNX1234567");
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(IdentityTest, ASerialOf32CharactersIsWhole) {
    fake::serial = std::string(40, 's');
    fake::write_file(kTemplate, "");
    EXPECT_EQ(oapReadIdentity(), 0);
    EXPECT_EQ(oapCfg_g.serial, std::string(32, 's'));
}

TEST_F(IdentityTest, FillsInTheMacInPlace) {
    EXPECT_EQ(filled_in("\tlocal mac \"SY:S-:MA:C-:AD:DR\";\n"), "\tlocal mac \"00:1b:2c:3d:4e:5f\";\n");
}

TEST_F(IdentityTest, FillsInTheFirstOfTwoPlaceholdersOfALine) {
    EXPECT_EQ(filled_in("SY:S-:MA:C-:AD:DR SY:S-:MA:C-:AD:DR\n"), "00:1b:2c:3d:4e:5f SY:S-:MA:C-:AD:DR\n");
    EXPECT_EQ(filled_in("SYSSERIAL SY:S-:MA:C-:AD:DR\n"), "SYSSERIAL 00:1b:2c:3d:4e:5f\n");
}

TEST_F(IdentityTest, ASerialOfThePlaceholdersLengthReplacesIt) {
    fake::serial = "123456789";
    EXPECT_EQ(filled_in("\tlocal serial \"SYSSERIAL\";\n"), "\tlocal serial \"123456789\";\n");
}

TEST_F(IdentityTest, ALongerSerialIsCutToThePlaceholdersLength) {
    fake::serial = "123456789012";
    EXPECT_EQ(filled_in("\tlocal serial \"SYSSERIAL\";\n"), "\tlocal serial \"123456789\";\n");
}

TEST_F(IdentityTest, AShorterSerialEndsTheLineBehindIt) {
    fake::serial = "12345";
    EXPECT_EQ(filled_in("\tlocal serial \"SYSSERIAL\";\nnext\n"), "\tlocal serial \"12345next\n");
}

TEST_F(IdentityTest, TakesTheSettingsAndCopiesTheirLinesAsTheyAre) {
    const std::string content =
        "protocol oap {\n"
        "\t local tenant id \"tenant 7\";\n"
        "\t local site id \"site-9\";\n"
        "\t keepalive 30;\n"
        "\t cbs_reconnect_timeout 45;\n"
        "}\n";
    EXPECT_EQ(filled_in(content), content);
    EXPECT_STREQ(oapCfg_g.tenant_id, "tenant 7");
    EXPECT_STREQ(oapCfg_g.site_id, "site-9");
    EXPECT_EQ(oapCfg_g.keepalive, 30U);
    EXPECT_EQ(oapCfg_g.cbs_reconnect_timeout, 45U);
}

TEST_F(IdentityTest, WithTheOverlayOffTheFileIsEmptyAndTheSettingsAreTaken) {
    fake::write_file(kOapConfigPath, "old\n");
    fake::write_file(kTemplate, "local site id \"s\";\nkeepalive 5;\n");
    EXPECT_EQ(oapReadIdentity(), 0);
    EXPECT_EQ(file(), "");
    EXPECT_STREQ(oapCfg_g.site_id, "s");
    EXPECT_EQ(oapCfg_g.keepalive, 5U);
}

TEST_F(IdentityTest, ActsOnTheFirstMatchOfALineInTheOrderOfTheTests) {
    filled_in("SY:S-:MA:C-:AD:DR tenant id \"t\"\n");
    EXPECT_STREQ(oapCfg_g.tenant_id, "");
    filled_in("SYSSERIAL site id \"s\"\n");
    EXPECT_STREQ(oapCfg_g.site_id, "");
    filled_in("site id \"s\" tenant id \"t\"\n");
    EXPECT_STREQ(oapCfg_g.tenant_id, "t");
    EXPECT_STREQ(oapCfg_g.site_id, "");
    filled_in("keepalive 3; site id \"s\"\n");
    EXPECT_STREQ(oapCfg_g.site_id, "s");
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
    filled_in("cbs_reconnect_timeout 4; keepalive 3;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 3U);
    EXPECT_EQ(oapCfg_g.cbs_reconnect_timeout, 0U);
}

TEST_F(IdentityTest, TheValueStandsBetweenTheQuotesWhateverSeparatesItFromTheKey) {
    filled_in("tenant id\"a\"\nsite id   \" b c \"\n");
    EXPECT_STREQ(oapCfg_g.tenant_id, "a");
    EXPECT_STREQ(oapCfg_g.site_id, " b c ");
    filled_in("tenant id plain\"\n");
    EXPECT_STREQ(oapCfg_g.tenant_id, "plain");
}

TEST_F(IdentityTest, WithoutAWholeQuotedValueNothingIsStored) {
    oapSetTenantId("kept");
    for (const char *line : {"tenant id", "tenant id\n", "tenant id \"\";\n", "tenant id \"open\n", "tenant id ;\n"}) {
        filled_in(line);
        EXPECT_STREQ(oapCfg_g.tenant_id, "kept") << line;
    }
}

TEST_F(IdentityTest, AnIdIsCutToItsField) {
    filled_in("tenant id \"" + std::string(70, 't') + "\";\nsite id \"" + std::string(65, 's') + "\";\n");
    EXPECT_EQ(oapCfg_g.tenant_id, std::string(64, 't'));
    EXPECT_EQ(oapCfg_g.site_id, std::string(64, 's'));
}

TEST_F(IdentityTest, NumbersAreReadUpToTheFirstOtherCharacter) {
    filled_in("keepalive    12x;\ncbs_reconnect_timeout;34;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 12U);
    EXPECT_EQ(oapCfg_g.cbs_reconnect_timeout, 34U);
}

TEST_F(IdentityTest, ANumberThatIsNoneBecomesZero) {
    oapSetKeepalive(9);
    filled_in("keepalive soon;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
    oapSetKeepalive(9);
    filled_in("keepalive;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
}

TEST_F(IdentityTest, WithoutANumberNothingIsStored) {
    oapSetKeepalive(9);
    oapSetCbsReconnectTimeout(8);
    filled_in("keepalive\ncbs_reconnect_timeout ;");
    EXPECT_EQ(oapCfg_g.keepalive, 9U);
    EXPECT_EQ(oapCfg_g.cbs_reconnect_timeout, 8U);
}

TEST_F(IdentityTest, LongLinesAreTakenInPiecesOf255Characters) {
    const std::string long_line = std::string(250, 'a') + "keepalive 5;" + std::string(600, 'b') + "\n";
    EXPECT_EQ(filled_in(long_line), long_line);
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
    filled_in(std::string(246, 'a') + "keepalive 57;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
    filled_in(std::string(244, 'a') + "keepalive 57;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 5U);
    filled_in(std::string(255, 'a') + "keepalive 58;\n");
    EXPECT_EQ(oapCfg_g.keepalive, 58U);
}

TEST_F(IdentityTest, TheLastLineNeedsNoNewline) {
    EXPECT_EQ(filled_in("first\nsite id \"x\""), "first\nsite id \"x\"");
    EXPECT_STREQ(oapCfg_g.site_id, "x");
}

TEST_F(IdentityTest, NoTemplateIsAFailureNamingIt) {
    EXPECT_EQ(oapReadIdentity(), -1);
    EXPECT_EQ(fake::log_texts(3),
              Texts{"<VYRWRAP>: fopen of /etc/bird/vyr_oap.conf failed - No such file or directory"});
    EXPECT_EQ(file(), "(no file)");
    EXPECT_STREQ(oapCfg_g.mac, "00:1b:2c:3d:4e:5f");
}

TEST_F(IdentityTest, ATemplateThatCannotBeReadIsAFailureAndKeepsTheOldFile) {
    mkdir(kTemplate, 0755);
    fake::write_file(kOapConfigPath, "old\n");
    EXPECT_EQ(oapReadIdentity(), -1);
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>: fopen of /etc/bird/vyr_oap.conf failed - Is a directory"});
    EXPECT_EQ(file(), "old\n");
    EXPECT_EQ(fake::read_file(std::string(kOapConfigPath) + ".new"), "(no file)");
}

TEST_F(IdentityTest, AFileThatCannotBeOpenedIsAFailureNamingItAndTakesNothingFromTheTemplate) {
    fake::write_file(kTemplate, "keepalive 5;\n");
    mkdir(kOapConfigPath, 0755);
    EXPECT_EQ(oapReadIdentity(), -1);
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>: fopen of /tmp/vyr_oap.conf failed - Is a directory"});
    EXPECT_EQ(oapCfg_g.keepalive, 0U);
}

TEST_F(IdentityTest, AFileThatCannotBeWrittenIsAFailureAndKeepsTheOldFile) {
    fake::write_file(kTemplate, "line\n");
    fake::write_file(kOapConfigPath, "old\n");
    oapCfg_g.bEnable = 1;
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(oapReadIdentity(), -1);
    EXPECT_EQ(fake::log_texts(3), Texts{"<VYRWRAP>: fopen of /tmp/vyr_oap.conf failed - No space left on device"});
    EXPECT_EQ(file(), "old\n");
}

}  // namespace
