#include "core/config_files.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "fakes/fakes.h"

namespace {

constexpr char kTemplate[] = "/etc/bird/vyr.conf";

class ConfigFilesTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        for (const char *path : {"/tmp/vyr.conf", "/tmp/vyr_log.conf", "/tmp/vyr_app.conf", "/tmp/vyr_static.conf"})
            std::filesystem::remove_all(path);
        std::filesystem::remove_all(kTemplate);
        fake::write_file(kTemplate, "router id 1.2.3.4;\ninclude \"/tmp/vyr_static.conf\";\n");
    }

    /** Lays files out with a directory in the way of `path`; the log's error lines. */
    static std::vector<std::string> errors_with_directory_at(const char *path) {
        mkdir(path, 0755);
        EXPECT_EQ(vyrwrap_write_startup_config(), -1);
        return fake::log_texts(3);
    }
};

using Texts = std::vector<std::string>;

TEST_F(ConfigFilesTest, CopiesTheTemplateByteForByte) {
    const std::string content("any\0byte\xff\n no newline at the end", 33);
    fake::write_file(kTemplate, content);
    ASSERT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(fake::read_file("/tmp/vyr.conf"), content);
}

TEST_F(ConfigFilesTest, CopiesATemplateOfManyBlocks) {
    std::string content;
    for (int i = 0; i < 20000; i++)
        content += std::to_string(i) + "\n";
    fake::write_file(kTemplate, content);
    ASSERT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(fake::read_file("/tmp/vyr.conf"), content);
}

TEST_F(ConfigFilesTest, WritesTheLogFile) {
    ASSERT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(fake::read_file("/tmp/vyr_log.conf"),
              "log \"/var/log/korvalog/NETWORK.log\" 40960 \"/var/log/korvalog/NETWORK.log.1\" { warning, error, auth, "
              "fatal, bug };\n");
}

TEST_F(ConfigFilesTest, WritesTheApplicationFileAndLogsItsLimit) {
    ASSERT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(fake::read_file("/tmp/vyr_app.conf"),
              "filter app_export_filter {\n"
              "\tif ((source = RTS_STATIC) && (proto = \"ospf_agg\")) then {\n"
              "\t\t reject;\n"
              "\t}\n"
              "\t accept;\n"
              "}\n"
              "protocol app {\n"
              "\t max_prefixes 512;\n"
              "\t ipv4 {\n"
              "\t\t export filter app_export_filter;\n"
              "\t};\n"
              "}\n");
    EXPECT_EQ(fake::log_texts(6), (Texts{"<VYRWRAP>: vyr_app_config Setting System Max Prefixes limit to: 512"}));
}

TEST_F(ConfigFilesTest, EmptiesTheStaticFileAndSaysSoOnStandardError) {
    fake::write_file("/tmp/vyr_static.conf", "protocol static {\n}\n");
    testing::internal::CaptureStderr();
    ASSERT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "VyrWrap, config vyr_static\n");
    EXPECT_EQ(fake::read_file("/tmp/vyr_static.conf"), "");
}

TEST_F(ConfigFilesTest, TakesAnEmptyTemplate) {
    fake::write_file(kTemplate, "");
    EXPECT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(fake::read_file("/tmp/vyr.conf"), "");
}

TEST_F(ConfigFilesTest, WritesNothingWithoutATemplate) {
    unlink(kTemplate);
    EXPECT_EQ(vyrwrap_write_startup_config(), -1);
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: Failed to open /etc/bird/vyr.conf - No such file or directory"}));
    for (const char *path : {"/tmp/vyr.conf", "/tmp/vyr_log.conf", "/tmp/vyr_app.conf", "/tmp/vyr_static.conf"})
        EXPECT_EQ(fake::read_file(path), "(no file)") << path;
}

TEST_F(ConfigFilesTest, RefusesATemplateThatCannotBeRead) {
    unlink(kTemplate);
    mkdir(kTemplate, 0755);
    EXPECT_EQ(vyrwrap_write_startup_config(), -1);
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: Failed to open /etc/bird/vyr.conf - Is a directory"}));
    EXPECT_EQ(fake::read_file("/tmp/vyr.conf"), "(no file)");
    EXPECT_EQ(fake::read_file("/tmp/vyr.conf.new"), "(no file)");
}

TEST_F(ConfigFilesTest, StopsAtAMainFileThatCannotBeOpened) {
    EXPECT_EQ(errors_with_directory_at("/tmp/vyr.conf"),
              (Texts{"<VYRWRAP>: Failed to open /tmp/vyr.conf- Is a directory"}));
    EXPECT_EQ(fake::read_file("/tmp/vyr_log.conf"), "(no file)");
}

TEST_F(ConfigFilesTest, StopsAtAMainFileThatCannotBeWritten) {
    fake::write_file("/tmp/vyr.conf", "old");
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(vyrwrap_write_startup_config(), -1);
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: Failed to open /tmp/vyr.conf- No space left on device"}));
    EXPECT_EQ(fake::read_file("/tmp/vyr.conf"), "old");
}

TEST_F(ConfigFilesTest, StopsAtALogFileThatCannotBeOpened) {
    EXPECT_EQ(errors_with_directory_at("/tmp/vyr_log.conf"),
              (Texts{"<VYRWRAP>: Failed to open /tmp/vyr_log.conf - Is a directory"}));
    EXPECT_EQ(fake::read_file("/tmp/vyr_app.conf"), "(no file)");
}

TEST_F(ConfigFilesTest, StopsAtAnApplicationFileThatCannotBeOpenedWithTwoLines) {
    EXPECT_EQ(errors_with_directory_at("/tmp/vyr_app.conf"),
              (Texts{"<VYRWRAP>: Failed to open /tmp/vyr_app.conf - Is a directory",
                     "<VYRWRAP>: Failed to write /tmp/vyr_app.conf - Is a directory"}));
    EXPECT_EQ(fake::read_file("/tmp/vyr_static.conf"), "(no file)");
}

TEST_F(ConfigFilesTest, StopsAtAStaticFileThatCannotBeOpened) {
    EXPECT_EQ(errors_with_directory_at("/tmp/vyr_static.conf"),
              (Texts{"<VYRWRAP>: Failed to open /tmp/vyr_static.conf - Is a directory"}));
}

TEST_F(ConfigFilesTest, LeavesNoDescriptorOpenOnAnyWay) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator open_ones("/proc/self/fd");
        return std::distance(begin(open_ones), end(open_ones));
    };
    const auto before = descriptors();
    EXPECT_EQ(vyrwrap_write_startup_config(), 0);
    EXPECT_EQ(descriptors(), before);
    for (const char *path : {"/tmp/vyr_static.conf", "/tmp/vyr.conf"}) {
        std::filesystem::remove(path);
        errors_with_directory_at(path);
        EXPECT_EQ(descriptors(), before) << path;
    }
    std::filesystem::remove("/tmp/vyr.conf");
    unlink(kTemplate);
    mkdir(kTemplate, 0755);
    EXPECT_EQ(vyrwrap_write_startup_config(), -1);
    EXPECT_EQ(descriptors(), before);
}

TEST_F(ConfigFilesTest, ReportsWhyOpeningFailedWhateverTheLogDoesToErrno) {
    fake::fail_call("calloc", ENOMEM);
    EXPECT_EQ(vyrwrap_write_startup_config(), -1);
    EXPECT_EQ(fake::log_texts(3), (Texts{"<VYRWRAP>: Failed to open /tmp/vyr.conf- Cannot allocate memory"}));
}

}  // namespace
