#include "core/config_file.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fakes/fakes.h"
#include "fakes/resources.h"

namespace {

constexpr char kPath[] = "/tmp/config_file_test.conf";
constexpr char kNewPath[] = "/tmp/config_file_test.conf.new";

class ConfigFileTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        unlink(kPath);
        unlink(kNewPath);
    }

    /** Opens, which shall fail. Returns errno. */
    static int open_error(const char *path) {
        errno = 0;
        EXPECT_EQ(config_file_open(path), nullptr);
        return errno;
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
    EXPECT_EQ(config_file_flush(file), 0);
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

TEST_F(ConfigFileTest, RefusesAPipeWithoutWaitingForItsReader) {
    ASSERT_EQ(mkfifo(kPath, 0644), 0);
    EXPECT_EQ(open_error(kPath), ENXIO);
}

TEST_F(ConfigFileTest, RefusesAPathThatCannotBeLookedAt) {
    fake::write_file(kPath, "a file");
    EXPECT_EQ(open_error("/tmp/config_file_test.conf/below"), ENOTDIR);
}

TEST_F(ConfigFileTest, RefusesAPathThatItCannotHoldWhole) {
    const std::string beyond = "/tmp/" + std::string(70, 'p');
    EXPECT_EQ(open_error(beyond.c_str()), ENAMETOOLONG);
    EXPECT_EQ(fake::read_file(beyond.substr(0, 63) + ".new"), "(no file)");
}

TEST_F(ConfigFileTest, SaysWhyNoFileCanBeMadeBesideTheOldOne) {
    EXPECT_EQ(open_error("/tmp/no_such_folder/file.conf"), ENOENT);
}

TEST_F(ConfigFileTest, GoesRoundWhatCannotBeRemovedFromTheNewFilesPlace) {
    ASSERT_EQ(mkdir(kNewPath, 0755), 0);
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "text");
    ASSERT_EQ(config_file_close(file), 0);
    ASSERT_EQ(rmdir(kNewPath), 0);
    EXPECT_EQ(fake::read_file(kPath), "text");
    struct stat status;
    ASSERT_EQ(stat(kPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(ConfigFileTest, DoesNotWriteThroughALinkOrPipeLeftInTheNewFilesPlace) {
    fake::write_file("/tmp/config_file_victim", "untouched");
    ASSERT_EQ(symlink("/tmp/config_file_victim", kNewPath), 0);
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "text");
    ASSERT_EQ(config_file_close(file), 0);
    EXPECT_EQ(fake::read_file("/tmp/config_file_victim"), "untouched");
    ASSERT_EQ(mkfifo(kNewPath, 0644), 0);
    file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "more text");
    ASSERT_EQ(config_file_close(file), 0);
    EXPECT_EQ(fake::read_file(kPath), "more text");
}

TEST_F(ConfigFileTest, NoChildInheritsTheNewFile) {
    const int lowest_free = dup(0);
    close(lowest_free);
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fcntl(lowest_free, F_GETFD), FD_CLOEXEC);
    config_file_discard(file);
}

TEST_F(ConfigFileTest, TakesTextsOfEveryLengthAroundItsBuffer) {
    for (size_t length = 4090; length <= 4100; length++) {
        const std::string text(length, 'x');
        ConfigFile *file = config_file_open(kPath);
        ASSERT_NE(file, nullptr);
        config_file_put(file, std::string_view());
        config_file_printf(file, "%s", text.c_str());
        ASSERT_EQ(config_file_close(file), 0);
        EXPECT_EQ(fake::read_file(kPath), text);
    }
}

TEST_F(ConfigFileTest, NothingIsPutInPlaceWhenOneOfItsTextsIsLost) {
    fake::write_file(kPath, "old\n");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, "kept");
    fake::fail_call("realloc", ENOMEM);
    config_file_put(file, std::string(5000, 'x'));
    config_file_put(file, "short enough");
    errno = 0;
    EXPECT_EQ(config_file_close(file), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(fake::read_file(kPath), "old\n");
}

TEST_F(ConfigFileTest, AFileThatIsWrittenInPartOnlyIsNotPutInPlace) {
    fake::write_file(kPath, "old\n");
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_put(file, std::string(10000, 'x'));
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {4096, before.rlim_max};
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = config_file_close(file);
    const int error = errno;
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, old_handler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(fake::read_file(kPath), "old\n");
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

TEST_F(ConfigFileTest, GoesOnAfterAnInterruptedWrite) {
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    const std::string text(100000, 'x');
    config_file_put(file, text);
    fake::fail_call("write", EINTR);
    ASSERT_EQ(config_file_close(file), 0);
    EXPECT_EQ(fake::read_file(kPath), text);
}

TEST_F(ConfigFileTest, WhatErrnoSaidBeforeIsNoFailure) {
    fake::write_file(kPath, "old\n");  // so that looking at it leaves errno alone
    const size_t descriptors = fake::open_descriptors();
    errno = EEXIST;
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    config_file_discard(file);
    EXPECT_EQ(fake::open_descriptors(), descriptors);
}

TEST_F(ConfigFileTest, DiscardingLeavesErrnoAlone) {
    ConfigFile *file = config_file_open(kPath);
    ASSERT_NE(file, nullptr);
    unlink(kNewPath);  // so that there is nothing to remove, which sets errno
    errno = EXDEV;
    config_file_discard(file);
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
