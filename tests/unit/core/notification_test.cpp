#include "core/notification.h"

#include "fakes/fakes.h"

namespace {

using NotificationTest = fake::Test;

TEST_F(NotificationTest, GivesEachElementsText) {
    const fake::Reply reply({"pmessage", "a*", "abc", "set"});
    EXPECT_STREQ(notification_text(reply.get(), NOTIFICATION_KIND), "pmessage");
    EXPECT_STREQ(notification_text(reply.get(), NOTIFICATION_PATTERN), "a*");
    EXPECT_STREQ(notification_text(reply.get(), NOTIFICATION_CHANNEL), "abc");
    EXPECT_STREQ(notification_text(reply.get(), NOTIFICATION_DATA), "set");
}

TEST_F(NotificationTest, GivesNoTextWhereThereIsNone) {
    EXPECT_EQ(notification_text(nullptr, 0), nullptr);
    const fake::Reply two({"pmessage", "a*"});
    EXPECT_EQ(notification_text(two.get(), NOTIFICATION_CHANNEL), nullptr);
    fake::Reply nil({"pmessage", "a*", "abc", "set"});
    nil.element(2)->str = nullptr;
    EXPECT_EQ(notification_text(nil.get(), NOTIFICATION_CHANNEL), nullptr);
    dal_reply bare = {DAL_REPLY_ARRAY, 0, 0, nullptr, 4, nullptr};
    EXPECT_EQ(notification_text(&bare, 0), nullptr);
    dal_reply *elements[4] = {};
    bare.element = elements;
    EXPECT_EQ(notification_text(&bare, 3), nullptr);
}

TEST_F(NotificationTest, ClassifiesTheEventText) {
    EXPECT_EQ(notification_action(fake::Reply({"pmessage", "a*", "abc", "hdel"}).get()), DAL_NOTIFY_HDEL);
    EXPECT_EQ(notification_action(fake::Reply({"pmessage", "a*", "abc", "lpush"}).get()), 0);
    EXPECT_EQ(notification_action(fake::Reply({"pmessage", "a*", "abc"}).get()), 0);
}

TEST_F(NotificationTest, AnyNumberOfElementsButFourIsLoggedUnderTheCallersName) {
    EXPECT_TRUE(notification_is_complete(fake::Reply({"a", "b", "c", "d"}).get(), "f"));
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_FALSE(notification_is_complete(fake::Reply({"a", "b", "c"}).get(), "f"));
    EXPECT_FALSE(notification_is_complete(fake::Reply({"a", "b", "c", "d", "e"}).get(), "g"));
    EXPECT_EQ(fake::log_texts(3),
              (std::vector<std::string>{"<VYRWRAP>: f: unexpected num of elements (3), expected 4\n",
                                        "<VYRWRAP>: g: unexpected num of elements (5), expected 4\n"}));
}

const char *hash_name(const std::vector<std::string> &elements, int *action, int type = DAL_REPLY_ARRAY) {
    static std::string name;
    const fake::Reply reply(elements, type);
    const char *found = notification_hash_name(reply.get(), "c:/h/", "f", action);
    name = found ? found : "";
    return found ? name.c_str() : nullptr;
}

TEST_F(NotificationTest, GivesTheNameOfAHashThatChanged) {
    int action = -7;
    EXPECT_STREQ(hash_name({"pmessage", "p", "c:/h/name", "del"}, &action), "name");
    EXPECT_EQ(action, DAL_NOTIFY_DEL);
    EXPECT_STREQ(hash_name({"pmessage", "p", "c:/h/name", "hset"}, &action), "name");
    EXPECT_EQ(action, DAL_NOTIFY_HSET);
    EXPECT_STREQ(hash_name({"pmessage", "p", "c:/h/", "hdel"}, &action), "");
    EXPECT_EQ(action, DAL_NOTIFY_HDEL);
    EXPECT_TRUE(fake::log_lines.empty());
}

TEST_F(NotificationTest, GivesNoNameWhereNoHashChanged) {
    int action = -7;
    EXPECT_EQ(hash_name({"pmessage", "p", "c:/h/name", "hset"}, &action, DAL_REPLY_STATUS), nullptr);
    EXPECT_EQ(hash_name({"pmessage", "p", "c:/x/name", "hset"}, &action), nullptr);
    EXPECT_TRUE(fake::log_lines.empty());
    EXPECT_EQ(hash_name({"pmessage", "p", "c:/h/name"}, &action), nullptr);
    EXPECT_EQ(hash_name({"pmessage", "p", "c:/h/name", "expire"}, &action), nullptr);
    EXPECT_EQ(fake::log_texts(3),
              (std::vector<std::string>{"<VYRWRAP>: f: unexpected num of elements (3), expected 4\n",
                                        "<VYRWRAP>: f: Unexpected notify_action (4)"}));
    EXPECT_EQ(action, -7);
}

void callback(dal_ctx *, const dal_reply *, void *) {}

TEST_F(NotificationTest, ASubscriptionIsLoggedWithItsNumber) {
    EXPECT_EQ(notification_subscribe("a*", callback, {"f", 10, 11}), 0);
    EXPECT_EQ(fake::subscriptions.at("a*").callback, callback);
    EXPECT_EQ(fake::subscriptions.at("a*").arg, nullptr);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(6), std::vector<std::string>{"<VYRWRAP>:f:11 subscribed dal for (PSUBSCRIBE a*) done"});
}

TEST_F(NotificationTest, AFailedSubscriptionIsLoggedAndItsResultReturned) {
    fake::failing_calls = {"dal_sub_command"};
    EXPECT_EQ(notification_subscribe("a*", callback, {"f", 10, 11}), -1);
    ASSERT_EQ(fake::log_lines.size(), 1U);
    EXPECT_EQ(fake::log_texts(3),
              std::vector<std::string>{"<VYRWRAP>:f:10 Failed to subscribe dal for (PSUBSCRIBE a*)"});
}

TEST_F(NotificationTest, SubscribesToAPatternOfAnyUsualLength) {
    const std::string pattern(192, 'p');
    notification_subscribe(pattern.c_str(), callback, {"f", 10, 11});
    EXPECT_EQ(fake::dal_calls, std::vector<std::string>{"dal_sub_command PSUBSCRIBE " + pattern});
}

TEST_F(NotificationTest, FindsWhatStandsBehindAPrefix) {
    EXPECT_STREQ(text_behind("/op/x", "/op/"), "x");
    EXPECT_STREQ(text_behind("/op/", "/op/"), "");
    EXPECT_EQ(text_behind("/op", "/op/"), nullptr);
    EXPECT_EQ(text_behind("/on/x", "/op/"), nullptr);
    EXPECT_EQ(text_behind(nullptr, "/op/"), nullptr);
}

TEST_F(NotificationTest, APatternMessageIsAnArrayThatBeginsWithPmessage) {
    EXPECT_TRUE(notification_is_pattern_message(fake::Reply({"pmessage", "p", "c", "d"}).get()));
    EXPECT_TRUE(notification_is_pattern_message(fake::Reply({"pmessage"}).get()));
    EXPECT_FALSE(notification_is_pattern_message(fake::Reply({"message", "p", "c", "d"}).get()));
    EXPECT_FALSE(notification_is_pattern_message(fake::Reply({}).get()));
    EXPECT_FALSE(notification_is_pattern_message(fake::Reply({"pmessage", "p"}, DAL_REPLY_STRING).get()));
    EXPECT_FALSE(notification_is_pattern_message(nullptr));
    fake::Reply status({"pmessage", "p", "c", "d"});
    status.element(0)->type = DAL_REPLY_STATUS;
    EXPECT_FALSE(notification_is_pattern_message(status.get()));
}

}  // namespace
