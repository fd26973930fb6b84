#include "event/route_limit.h"

#include <sys/stat.h>
#include <unistd.h>

#include "fakes/fakes.h"

namespace {

using namespace std::string_literals;

constexpr char kNamePath[] = "/tmp/name";

class RouteLimitTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        fake::write_file(kNamePath, "");
        vyrwrap_prepare_event();  // the name of an earlier test goes
        unlink(kNamePath);
    }
    void TearDown() override {
        unlink(kNamePath);
        rmdir(kNamePath);
        fake::Test::TearDown();
    }

    /** The envelope of one whole event of values 1, 4000 and 4096. */
    static std::string published() {
        vyrwrap_prepare_event();
        vyrwrap_publish_route_limit(1, 4000, 4096);
        return fake::publications.empty() ? "" : fake::publications.back().data;
    }

    static std::string envelope_with_name(const std::string &name) {
        const std::string limit = "\x2a\x08\x08\x01\x10\xa0\x1f\x18\x80\x20"s;
        if (name.empty())
            return "\x74\x00\x01\x0a\x00"s + limit + "\x00"s;
        const auto length = [](size_t size) {
            return size < 0x80 ? std::string(1, static_cast<char>(size))
                               : std::string{static_cast<char>((size & 0x7f) | 0x80), static_cast<char>(size >> 7)};
        };
        const std::string source = "\x1a" + length(name.size()) + name;
        return "\x74\x00\x01\x0a"s + length(source.size()) + source + limit + "\x00"s;
    }
};

TEST_F(RouteLimitTest, WithoutANameTheExamplesSixteenBytesGoOut) {
    EXPECT_EQ(published(), "\x74\x00\x01\x0a\x00\x2a\x08\x08\x01\x10\xa0\x1f\x18\x80\x20\x00"s);
    EXPECT_EQ(fake::publications.at(0).channel, "/event/ap/route_limit");
}

TEST_F(RouteLimitTest, ValuesGoOutWholeAtBothEndsOfTheirRange) {
    vyrwrap_prepare_event();
    vyrwrap_publish_route_limit(0, UINT32_MAX, 0);
    ASSERT_EQ(fake::publications.size(), 1U);
    EXPECT_EQ(fake::publications[0].data, "\x74\x00\x01\x0a\x00\x2a\x0a\x08\x00\x10\xff\xff\xff\xff\x0f\x18\x00\x00"s);
}

TEST_F(RouteLimitTest, TheLineFeedStaysPartOfTheName) {
    fake::write_file(kNamePath, "ap-1\n");
    EXPECT_EQ(published(), envelope_with_name("ap-1\n"));
}

TEST_F(RouteLimitTest, ANameWithoutLineFeedIsTakenAsItIs) {
    fake::write_file(kNamePath, "ap-1");
    EXPECT_EQ(published(), envelope_with_name("ap-1"));
}

TEST_F(RouteLimitTest, OnlyTheFirstLineIsTheName) {
    fake::write_file(kNamePath, "ap-1\nap-2\n");
    EXPECT_EQ(published(), envelope_with_name("ap-1\n"));
}

TEST_F(RouteLimitTest, ANameEndsAfter128Characters) {
    fake::write_file(kNamePath, std::string(128, 'n'));
    EXPECT_EQ(published(), envelope_with_name(std::string(128, 'n')));
    fake::write_file(kNamePath, std::string(128, 'm') + "\n");
    EXPECT_EQ(published(), envelope_with_name(std::string(128, 'm')));
    fake::write_file(kNamePath, std::string(1000, 'o'));
    EXPECT_EQ(published(), envelope_with_name(std::string(128, 'o')));
}

TEST_F(RouteLimitTest, AnyBytesMayBeAName) {
    fake::write_file(kNamePath, "\xff\xfe\x01\n");
    EXPECT_EQ(published(), envelope_with_name("\xff\xfe\x01\n"));
}

TEST_F(RouteLimitTest, ANulEndsTheName) {
    fake::write_file(kNamePath, "ap\0-1\n"s);
    EXPECT_EQ(published(), envelope_with_name("ap"));
}

TEST_F(RouteLimitTest, ARemovedFileLeavesTheFormerName) {
    fake::write_file(kNamePath, "ap-1\n");
    published();
    unlink(kNamePath);
    EXPECT_EQ(published(), envelope_with_name("ap-1\n"));
}

TEST_F(RouteLimitTest, AnEmptyFileMakesTheNameEmpty) {
    fake::write_file(kNamePath, "ap-1\n");
    published();
    fake::write_file(kNamePath, "");
    EXPECT_EQ(published(), envelope_with_name(""));
}

TEST_F(RouteLimitTest, AShorterNameLeavesNothingOfALongerOne) {
    fake::write_file(kNamePath, "a-very-long-name");
    published();
    fake::write_file(kNamePath, "b");
    EXPECT_EQ(published(), envelope_with_name("b"));
}

TEST_F(RouteLimitTest, WhatIsNoRegularFileIsNoName) {
    fake::write_file(kNamePath, "ap-1\n");
    published();

    unlink(kNamePath);
    ASSERT_EQ(mkfifo(kNamePath, 0600), 0);
    EXPECT_EQ(published(), envelope_with_name("ap-1\n")) << "a FIFO";

    unlink(kNamePath);
    ASSERT_EQ(mkdir(kNamePath, 0700), 0);
    EXPECT_EQ(published(), envelope_with_name("ap-1\n")) << "a directory";

    rmdir(kNamePath);
    fake::write_file("/tmp/name.secret", "secret\n");
    ASSERT_EQ(symlink("/tmp/name.secret", kNamePath), 0);
    EXPECT_EQ(published(), envelope_with_name("ap-1\n")) << "a link";
}

TEST_F(RouteLimitTest, AHundredEventsLeaveNoDescriptorOpen) {
    fake::write_file(kNamePath, "ap-1\n");
    const int before = dup(0);
    close(before);
    for (int i = 0; i < 100; i++)
        published();
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
    EXPECT_EQ(fake::publications.size(), 100U);
}

TEST_F(RouteLimitTest, WithoutAContextTheEventIsLost) {
    vyrwrap_global.dal_ctx = nullptr;
    EXPECT_EQ(published(), "");
    EXPECT_TRUE(fake::logged(4, "dal_pub_event(1211): Invalid dal ctx"));
}

TEST_F(RouteLimitTest, TheNameIsReadAlsoWhereDescriptor0IsFree) {
    fake::write_file(kNamePath, "ap-1\n");
    const int saved = dup(0);
    close(0);
    const std::string data = published();
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
    EXPECT_EQ(data, envelope_with_name("ap-1\n"));
}

}  // namespace
