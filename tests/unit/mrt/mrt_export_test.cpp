#include "mrt/mrt_export.h"

#include <sys/stat.h>

#include "fakes/vyr_peer.h"

namespace {

using namespace std::string_literals;

constexpr char kControlPath[] = "/tmp/bird_data_exp.ctl";
constexpr char kExportPath[] = "/tmp/.vyrwrap_mrt";
constexpr char kPattern[] = "/ipc/event/vyrwrap/mrt";
constexpr char kStarved[] = "<VYRWRAP>: Read failed due to Resource temporarily unavailable, will try again";
constexpr char kFileError[] = "<VYRWRAP>: Error MRT data file write";

/** A routing daemon that answers each request with answer_, and keeps the requests. */
class MrtExportTest : public fake::Test {
protected:
    void SetUp() override {
        fake::Test::SetUp();
        signal(SIGPIPE, SIG_IGN);
        remove(kExportPath);
        listener_ = fake::listen_at(kControlPath);
        fcntl(listener_, F_SETFL, O_NONBLOCK);
        fake::on_select = [this](fd_set *, fd_set *, timeval *, int *result) {
            answer_requests();
            *result = 0;
            return answer_.empty();  // nothing will come: the 10 s are over at once
        };
        fake::on_log = [this](const fake::LogLine &line) {
            if (line.text == kStarved)
                on_starved_();
        };
    }

    void TearDown() override {
        if (vyrwrap_global.ctl_sock_fd > 0)
            close(vyrwrap_global.ctl_sock_fd);
        close(listener_);
        unlink(kControlPath);
        remove(kExportPath);
        fake::Test::TearDown();
    }

    void answer_requests() {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0)
            peer_ = fake::Peer(fd);
        requests_.push_back(peer_.receive());
        sent_ = peer_.send_some(answer_);
    }

    void answer_with(const std::string &body) { answer_ = fake::frame(body); }

    /** Delivers the trigger with that data. */
    static void trigger(const std::string &data, const std::string &kind = "pmessage") {
        const fake::Reply reply({kind, kPattern, kPattern, data});
        vyrwrap_dal_mrt_subscribe_callback(fake::context(), reply.get(), nullptr);
    }

    static std::string type_bytes(uint32_t type) { return {reinterpret_cast<const char *>(&type), sizeof type}; }

    static std::string request(char code) { return "\x08"s + code + "\x10\x00\x18\x80\x05\x20\x01\x2a\x00\x30\x00"s; }

    static mode_t export_mode() {
        struct stat status = {};
        EXPECT_EQ(lstat(kExportPath, &status), 0);
        return status.st_mode & 07777;
    }

    static std::vector<std::string> errors() { return fake::log_texts(3); }

    int listener_ = -1;
    fake::Peer peer_;
    std::string answer_ = fake::frame(fake::answer(2, "routes"));
    size_t sent_ = 0;
    std::function<void()> on_starved_ = [this] { sent_ += peer_.send_some(std::string_view(answer_).substr(sent_)); };
    std::vector<std::string> requests_;
};

TEST_F(MrtExportTest, EachExportTypeHasItsRequestWithAllSixMembers) {
    const std::vector<char> codes = {3, 23, 27, 29, 25, 44};
    for (uint32_t type = 0; type < codes.size(); type++) {
        trigger(type_bytes(type));
        ASSERT_EQ(requests_.size(), type + 1);
        EXPECT_EQ(requests_[type], request(codes[type])) << type;
    }
}

TEST_F(MrtExportTest, OtherExportTypesAreIgnored) {
    for (const uint32_t type : {6U, 7U, 44U, 0x05000000U, 0x100U, UINT32_MAX})
        trigger(type_bytes(type));
    EXPECT_EQ(fake::call_count("connect"), 0);
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Event Type 6"));
    EXPECT_TRUE(fake::logged(6, "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Event Type -1"));
}

TEST_F(MrtExportTest, DataTooShortForATypeMeansTypeZero) {
    for (const std::string &data : {""s, "\x05"s, "\x05\x00"s, "\x05\x00\x00"s}) {
        requests_.clear();
        trigger(data);
        EXPECT_EQ(requests_, std::vector<std::string>{request(3)});
    }
    for (const std::string &text : fake::log_texts(6))
        EXPECT_EQ(text.find("Event Type"), std::string::npos);
}

TEST_F(MrtExportTest, OnlyTheFirstFourBytesMatter) {
    trigger("\x05\x00\x00\x00"s + std::string(100000, '\xff'));
    EXPECT_EQ(requests_, std::vector<std::string>{request(44)});
}

TEST_F(MrtExportTest, ADeliveryIsLoggedAsItCame) {
    answer_.clear();
    trigger("\x05\x00\x00\x00"s);
    const std::vector<std::string> texts = fake::log_texts(7);
    EXPECT_EQ(texts.at(0), "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Number of elements 4");
    EXPECT_EQ(texts.at(1),
              "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Mtype pmessage, sub_key /ipc/event/vyrwrap/mrt, data_key "
              "/ipc/event/vyrwrap/mrt, Data 4 : \x05");
    EXPECT_EQ(fake::log_texts(6),
              std::vector<std::string>{"<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Event Type 5"});
}

TEST_F(MrtExportTest, MissingDataIsLoggedAsNullAndMeansTypeZero) {
    fake::Reply reply({"pmessage", kPattern, kPattern, "\x05\x00\x00\x00"s});
    reply.element(3)->str = nullptr;
    vyrwrap_dal_mrt_subscribe_callback(fake::context(), reply.get(), nullptr);
    EXPECT_EQ(fake::log_texts(7).at(1),
              "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Mtype pmessage, sub_key /ipc/event/vyrwrap/mrt, data_key "
              "/ipc/event/vyrwrap/mrt, Data 4 : NULL");
    EXPECT_EQ(requests_, std::vector<std::string>{request(3)});
}

TEST_F(MrtExportTest, WhatIsNoPatternMessageIsIgnoredSilently) {
    trigger(type_bytes(0), "message");
    trigger(type_bytes(0), "psubscribe");
    for (const int kind : {DAL_REPLY_STRING, DAL_REPLY_NIL, DAL_REPLY_ERROR})
        vyrwrap_dal_mrt_subscribe_callback(fake::context(),
                                           fake::Reply({"pmessage", kPattern, kPattern, "data"}, kind).get(), nullptr);
    vyrwrap_dal_mrt_subscribe_callback(fake::context(), fake::Reply({}).get(), nullptr);
    vyrwrap_dal_mrt_subscribe_callback(fake::context(), nullptr, nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_EQ(fake::call_count("connect"), 0);
}

TEST_F(MrtExportTest, ADeliveryOfFewerThanFourElementsIsCountedAndIgnored) {
    vyrwrap_dal_mrt_subscribe_callback(fake::context(), fake::Reply({"pmessage", kPattern, kPattern}).get(), nullptr);
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Number of elements 3"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::call_count("connect"), 0);
}

TEST_F(MrtExportTest, ADeliveryWithNothingInItsFourthPlaceIsCountedAndIgnored) {
    const fake::Reply reply({"pmessage", kPattern, kPattern, type_bytes(0)});
    reply.get()->element[3] = nullptr;
    vyrwrap_dal_mrt_subscribe_callback(fake::context(), reply.get(), nullptr);
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP> vyrwrap_dal_mrt_subscribe_callback : Number of elements 4"));
    EXPECT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::call_count("connect"), 0);
}

TEST_F(MrtExportTest, ASuccessfulAnswerIsTheFile) {
    const std::string body = fake::answer(2, "10.0.0.0/8\0via 10.1.1.1\n"s);
    answer_with(body);
    const mode_t before = umask(0);
    vyrwrap_send_mrt_request_to_vyr(3);
    umask(before);
    EXPECT_EQ(fake::read_file(kExportPath), body);
    EXPECT_EQ(export_mode(), 0600U);
    const std::string length = std::to_string(body.size());
    EXPECT_EQ(fake::log_texts(7),
              (std::vector<std::string>{"MRT VYR req for routes: msg_len 13", "<VYRWRAP>: vyr server connected",
                                        "Succesfully read " + std::to_string(body.size() + 4) + " bytes from server",
                                        "<VYRWRAP> vyrwrap_send_mrt_request_to_vyr :Recieved data len = " + length,
                                        "<VYRWRAP>: MRT data exported to /tmp/.vyrwrap_mrt len " + length}));
    EXPECT_EQ(fake::log_texts(6), std::vector<std::string>{"<VYRWRAP>: MRT proto response received, result 2 \n"});
    EXPECT_TRUE(errors().empty());
}

TEST_F(MrtExportTest, TheModeIsTheSameWhateverTheUmaskTakes) {
    const mode_t before = umask(0777);
    vyrwrap_send_mrt_request_to_vyr(3);
    umask(before);
    EXPECT_EQ(export_mode(), 0600U);
}

TEST_F(MrtExportTest, ALaterAnswerReplacesTheFileWhole) {
    fake::write_file(kExportPath, std::string(5000, 'o'));
    chmod(kExportPath, 0644);
    const std::string body = fake::answer(2, "new");
    answer_with(body);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::read_file(kExportPath), body);
    EXPECT_EQ(export_mode(), 0600U);
}

TEST_F(MrtExportTest, TheLargestAnswerIsExportedWhole) {
    const size_t overhead = fake::answer(2, std::string(1000000, 'r')).size() - 1000000;
    const std::string body = fake::answer(2, std::string(1048571 - overhead, 'r'));
    ASSERT_EQ(body.size(), 1048571U);
    answer_with(body);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::read_file(kExportPath), body);
}

TEST_F(MrtExportTest, TheConnectionStaysOpenBetweenExports) {
    for (int i = 0; i < 5; i++)
        vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(requests_.size(), 5U);
    EXPECT_EQ(fake::call_count("connect"), 1);
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
}

/** Runs of an export that fails: the former file must stand. */
class FailedMrtExportTest : public MrtExportTest {
protected:
    void SetUp() override {
        MrtExportTest::SetUp();
        fake::write_file(kExportPath, "former export");
    }

    void TearDown() override {
        EXPECT_EQ(fake::read_file(kExportPath), "former export");
        MrtExportTest::TearDown();
    }
};

TEST_F(FailedMrtExportTest, AnAnswerThatIsNoSuccessIsNotExported) {
    for (const int32_t result : {1, 0, 3, -2}) {
        fake::log_lines.clear();
        answer_with(fake::answer(result, "routes"));
        vyrwrap_send_mrt_request_to_vyr(3);
        const std::string number = std::to_string(result);
        EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Error proto resp msg not success " + number});
        EXPECT_EQ(fake::log_texts(6),
                  std::vector<std::string>{"<VYRWRAP>: MRT proto response received, result " + number + " \n"});
    }
}

TEST_F(FailedMrtExportTest, AnAnswerWithoutResultIsNoSuccess) {
    answer_with("\x08\x01"s);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Error proto resp msg not success 0"});
}

TEST_F(FailedMrtExportTest, BytesThatAreNoMessageAreNotExported) {
    answer_with("\xff\xff\xff\xff");
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Error proto unpack for MRT data"});
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP> vyrwrap_send_mrt_request_to_vyr :Recieved data len = 4"));
}

TEST_F(FailedMrtExportTest, NoAnswerInTimeIsAReadError) {
    answer_.clear();
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{"vyrwrap message read error from vyr"});
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: Select timeout while waiting to read from vyr"));
    EXPECT_GT(vyrwrap_global.ctl_sock_fd, 2);
}

TEST_F(FailedMrtExportTest, ARequestThatCannotBeSentEndsTheExport) {
    fake::fail_call("write", EPIPE);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Server write error: Broken pipe"});
    EXPECT_EQ(fake::call_count("read"), 0);
}

TEST_F(FailedMrtExportTest, WithoutARoutingDaemonTheExportEnds) {
    const fake::KeepDescriptorZero keep;
    unlink(kControlPath);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), (std::vector<std::string>{"<VYRWRAP>: Unable to connect to server control socket "
                                                  "(/tmp/bird_data_exp.ctl), error: No such file or directory",
                                                  "Connect to  server failed"}));
}

TEST_F(FailedMrtExportTest, WithoutMemoryTheExportEnds) {
    fake::fail_call("calloc", ENOMEM);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{"<VYRWRAP>: Failed memory allocation for MRT Route request"});
    EXPECT_EQ(fake::call_count("connect"), 0);
}

TEST_F(FailedMrtExportTest, ARoutingDaemonThatDiesInItsAnswerLeavesTheFormerFile) {
    const std::string whole = fake::frame(fake::answer(2, "routes"));
    for (size_t cut = 1; cut < whole.size(); cut++) {
        fake::log_lines.clear();
        answer_ = whole.substr(0, cut);
        on_starved_ = [this] { peer_.close_now(); };
        vyrwrap_send_mrt_request_to_vyr(3);
        EXPECT_EQ(errors(), (std::vector<std::string>{"<VYRWRAP>: Connection closed by server while reading",
                                                      "vyrwrap message read error from vyr"}))
            << cut;
        EXPECT_EQ(vyrwrap_global.ctl_sock_fd, 0);
    }
}

TEST_F(FailedMrtExportTest, AFileThatCannotBeEmptiedIsLeftAlone) {
    fake::fail_call("ftruncate", EIO);
    const int before = fake::next_descriptor();
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{kFileError});
    EXPECT_EQ(fake::next_descriptor(), before + 2) << "the two ends of the connection";
}

TEST_F(FailedMrtExportTest, AFileOfAnotherUserIsLeftAlone) {
    fake::effective_uid = 12345;
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{kFileError});
}

TEST_F(FailedMrtExportTest, AFileWithASecondNameIsLeftAlone) {
    ASSERT_EQ(link(kExportPath, "/tmp/mrt.second"), 0);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{kFileError});
    unlink("/tmp/mrt.second");
}

TEST_F(MrtExportTest, ALinkInTheFilesPlaceIsNotFollowed) {
    fake::write_file("/tmp/mrt.victim", "precious");
    ASSERT_EQ(symlink("/tmp/mrt.victim", kExportPath), 0);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{kFileError});
    EXPECT_EQ(fake::read_file("/tmp/mrt.victim"), "precious");
}

TEST_F(MrtExportTest, WhatIsNoRegularFileIsNotWrittenTo) {
    ASSERT_EQ(mkdir(kExportPath, 0700), 0);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), std::vector<std::string>{kFileError});
    remove(kExportPath);

    ASSERT_EQ(mkfifo(kExportPath, 0666), 0);
    const int reader = open(kExportPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(errors(), (std::vector<std::string>{kFileError, kFileError}));
    char byte;
    EXPECT_LE(read(reader, &byte, 1), 0);
    close(reader);
    vyrwrap_send_mrt_request_to_vyr(3);  // and without a reader it does not wait for one
    EXPECT_EQ(errors().size(), 3U);
}

TEST_F(MrtExportTest, TheResultOfWritingTheFileIsNotLookedAt) {
    fake::fail_call("write", ENOSPC, 1);  // the first write is the request's
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(fake::read_file(kExportPath), "");
    EXPECT_TRUE(fake::logged(7, "<VYRWRAP>: MRT data exported to /tmp/.vyrwrap_mrt len 10"));
    EXPECT_EQ(fake::call_count("write"), 2) << "one write for the whole body";
}

TEST_F(MrtExportTest, ARoutingDaemonThatReturnsServesTheNextExport) {
    answer_ = fake::frame("cut").substr(0, 5);
    on_starved_ = [this] { peer_.close_now(); };
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::read_file(kExportPath), "(no file)");
    const std::string body = fake::answer(2, "again");
    answer_with(body);
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::read_file(kExportPath), body);
}

TEST_F(MrtExportTest, AnAnswerThatComesTooLateIsTakenForTheNextExports) {
    const std::string late = fake::answer(2, "late");
    answer_.clear();
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::read_file(kExportPath), "(no file)");
    peer_.send(fake::frame(late));
    answer_with(fake::answer(2, "in time"));
    vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::read_file(kExportPath), late);
}

TEST_F(MrtExportTest, AHundredExportsLeaveNoDescriptorOpen) {
    vyrwrap_send_mrt_request_to_vyr(3);
    const int before = fake::next_descriptor();
    for (int i = 0; i < 100; i++)
        vyrwrap_send_mrt_request_to_vyr(3);
    EXPECT_EQ(fake::next_descriptor(), before);
}

}  // namespace
