#include "linux/dal/glob.h"

#include <stdlib.h>
#include <string.h>

#include "fixture.h"

namespace {

class DalGlob : public DalTest {};

std::string random_text(unsigned *seed, const char *characters, int most) {
    std::string text;
    for (int length = rand_r(seed) % (most + 1); length > 0; length--)
        text += characters[static_cast<size_t>(rand_r(seed)) % strlen(characters)];
    return text;
}

bool matches(const std::string &pattern, const std::string &text) {
    return dal::glob_matches(pattern.data(), pattern.size(), text.data(), text.size());
}

TEST_F(DalGlob, MatchesAsTheServerDoes) {
    std::vector<std::string> keys;
    unsigned seed = 1;
    for (int i = 0; i < 60; i++) {
        keys.push_back(random_text(&seed, "abc-]^\\*", 6) + "x");
        redis.run({"SET", keys.back(), "v"});
    }
    int found = 0;
    for (int i = 0; i < 3000; i++) {
        const std::string pattern = random_text(&seed, "abcx-]^\\[[*?", 9);
        if (pattern.empty())
            continue;  // no pattern to the server
        const std::string server = redis.run({"KEYS", pattern});
        for (const std::string &key : keys) {
            const bool expected =
                ("[" + server.substr(1, server.size() - 2) + ", ").find("[" + key + ", ") == 0 ||
                (", " + server.substr(1, server.size() - 2) + ", ").find(", " + key + ", ") != std::string::npos;
            ASSERT_EQ(matches(pattern, key), expected) << pattern << " on " << key << ": " << server;
            found += expected;
        }
    }
    EXPECT_GT(found, 1000);
}

TEST_F(DalGlob, TakesManyStarsWithoutTryingEverything) {
    std::string pattern;
    for (int i = 0; i < 100; i++)
        pattern += "*a";
    EXPECT_FALSE(matches(pattern + "b", std::string(5000, 'a')));
    EXPECT_TRUE(matches(pattern, std::string(5000, 'a')));
}

TEST_F(DalGlob, KnowsAPlainText) {
    EXPECT_TRUE(dal::glob_is_plain("/op/vlans/x"));
    for (const char *pattern : {"a*", "?", "[a]", "\\a"})
        EXPECT_FALSE(dal::glob_is_plain(pattern)) << pattern;
}

}  // namespace
