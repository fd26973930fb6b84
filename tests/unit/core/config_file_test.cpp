#include "core/config_file.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fakes/fakes.h"

namespace {

constexpr char kPath[] = "/tmp/config_file_test.conf";

class ConfigFileTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        unlink(kPath);
    }
};

TEST_F(ConfigFileTest, ReplacesTheFileOnlyWhenItIsClosed) {
    fake::write_file(kPath, "old\n");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "new ");
    config_file_put_number(file, 42);
    config_file_put_all(file, std::string_view(" and "), std::string_view(""), std::string_view("more"));
    config_file_printf(file, " %s\n", "text");
    ASSERT_EQ(config_file_flush(file), 0);
    EXPECT_EQ(fake::read_file(kPath), "old\n");
    ASSERT_EQ(config_file_close(file), 0);
    EXPECT_EQ(fake::read_file(kPath), "new 42 and more text\n");
    EXPECT_EQ(fake::read_file(std::string(kPath) + ".new"), "(no file)");
}

TEST_F(ConfigFileTest, MakesTheFileReadableForAllWhateverItWasBefore) {
    fake::write_file(kPath, "old\n");
    chmod(kPath, 0600);
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(config_file_close(file), 0);
    struct stat status;
    ASSERT_EQ(stat(kPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(ConfigFileTest, RefusesADirectoryWithEisdir) {
    mkdir("/tmp/config_file_test.d", 0755);
    errno = 0;
    EXPECT_EQ(config_file_open("/tmp/config_file_test.d"), nullptr);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(ConfigFileTest, RefusesASymbolicLink) {
    ASSERT_EQ(symlink("/tmp/elsewhere", kPath), 0);
    errno = 0;
    EXPECT_EQ(config_file_open(kPath), nullptr);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(ConfigFileTest, KeepsTheOldFileWhenWritingFails) {
    fake::write_file(kPath, "old\n");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "new\n");
    fake::fail_call("write", ENOSPC);
    EXPECT_EQ(config_file_close(file), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fake::read_file(kPath), "old\n");
    EXPECT_EQ(fake::read_file(std::string(kPath) + ".new"), "(no file)");
}

TEST_F(ConfigFileTest, KeepsTheOldFileWhenRenamingFails) {
    fake::write_file(kPath, "old\n");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    fake::fail_call("rename", EIO);
    EXPECT_EQ(config_file_close(file), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fake::read_file(kPath), "old\n");
}

TEST_F(ConfigFileTest, ReportsMissingMemoryAndKeepsTheOldFile) {
    fake::write_file(kPath, "old\n");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    fake::fail_call("realloc", ENOMEM);
    config_file_put(file, "lost");
    config_file_put(file, "also lost");
    EXPECT_EQ(config_file_close(file), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(fake::read_file(kPath), "old\n");
}

TEST_F(ConfigFileTest, GoesOverANewFileLeftByAnEarlierRun) {
    fake::write_file(std::string(kPath) + ".new", "left over");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "fresh");
    ASSERT_EQ(config_file_close(file), 0);
    EXPECT_EQ(fake::read_file(kPath), "fresh");
}

TEST_F(ConfigFileTest, GoesOnAfterAPartialOrInterruptedWrite) {
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    const std::string text(100000, 'x');
    config_file_put(file, text);
    fake::fail_call("write", EINTR);
    ASSERT_EQ(config_file_close(file), 0);
    EXPECT_EQ(fake::read_file(kPath), text);
}

}  // namespace
