#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "linux/hash.h"
#include "platform/cmnutil.h"

namespace {

char *value(const char *text) {
    return strdup(text);
}

/** Tables live as long as the process: kept where the leak checker finds them. */
HashTable *new_table(uint32_t size_hint = 23) {
    static auto *tables = new std::vector<HashTable *>;
    tables->push_back(_HashCreate(size_hint));
    return tables->back();
}

std::vector<std::string> values_of(HashTable *table) {
    std::vector<std::string> values;
    for (void *each = HashGet(table, HASH_FIRST); each; each = HashGet(table, HASH_NEXT))
        values.push_back(static_cast<char *>(each));
    return values;
}

using Texts = std::vector<std::string>;

TEST(StrToIp, GivesHostOrder) {
    EXPECT_EQ(str_to_ip("10.1.2.3"), 0x0A010203U);
    EXPECT_EQ(str_to_ip("255.255.255.255"), 0xFFFFFFFFU);
    EXPECT_EQ(str_to_ip("0.0.0.0"), 0U);
}

TEST(StrToIp, ReadsExactlyWhatInetAtonAccepts) {
    for (const char *text : {"10.1", "10.1.2", "0x0a010203", "012.1.2.3", "167838211", "10.1.2.3 ", "10.1.2.3 tail", "",
                             " 10.1.2.3", "10.1.2.3.4", "256.1.2.3", "10.1.2.", "10..2.3", "-1.2.3.4", "a.b.c.d", "1e1",
                             "4294967296", "::1", "10.1.2.3/24"}) {
        in_addr address;
        const uint32_t expected = inet_aton(text, &address) ? ntohl(address.s_addr) : 0;
        EXPECT_EQ(str_to_ip(text), expected) << text;
    }
    EXPECT_EQ(str_to_ip("10.1"), 0x0A000001U);
    EXPECT_EQ(str_to_ip("no address"), 0U);
    EXPECT_EQ(str_to_ip(nullptr), 0U);
}

TEST(IpToStr, GivesBackWhatWasRead) {
    char text[16];
    EXPECT_EQ(ip_to_str(0x0A010203, text, sizeof text), text);
    EXPECT_STREQ(text, "10.1.2.3");
    EXPECT_STREQ(ip_to_str(0xFFFFFFFF, text, sizeof text), "255.255.255.255");
    EXPECT_STREQ(ip_to_str(0, text, sizeof text), "0.0.0.0");
}

TEST(IpToStr, WritesEveryOctetAsTheCLibraryDoes) {
    for (uint32_t octet = 0; octet < 256; octet++) {
        const uint32_t ip = octet << 24 | (255 - octet) << 16 | octet << 8 | (octet ^ 0x55);
        const in_addr address = {htonl(ip)};
        char text[16];
        EXPECT_STREQ(ip_to_str(ip, text, sizeof text), inet_ntoa(address));
    }
}

TEST(IpToStr, LeavesNoTextThatIsCut) {
    char text[16] = "before";
    EXPECT_STREQ(ip_to_str(0xFFFFFFFF, text, 15), "");
    strcpy(text, "before");
    ip_to_str(1, text, 0);
    EXPECT_STREQ(text, "before");
}

TEST(StrToMac, ReadsSixPairsOfDigits) {
    const uint8_t expected[6] = {0x00, 0x1b, 0x2C, 0xde, 0xAF, 0x90};
    uint8_t mac[6];
    EXPECT_EQ(str_to_mac("00:1b:2C:dE:Af:90", mac), 0);
    EXPECT_EQ(memcmp(mac, expected, 6), 0);
}

TEST(StrToMac, RefusesEveryOtherTextWithZeros) {
    const uint8_t zeros[6] = {};
    for (const char *text : {"",
                             "0",
                             "00",
                             "00:",
                             "00:1b:2c:3d:4e",
                             "00:1b:2c:3d:4e:",
                             "00:1b:2c:3d:4e:5",
                             "00:1b:2c:3d:4e:5f:",
                             "00:1b:2c:3d:4e:5f:60",
                             "00:1b:2c:3d:4e:5f ",
                             " 00:1b:2c:3d:4e:5f",
                             "00:1b:2c:3d:4e:5f0",
                             "+0:1b:2c:3d:4e:5f",
                             "-1:1b:2c:3d:4e:5f",
                             "0x:1b:2c:3d:4e:5f",
                             " 1:1b:2c:3d:4e:5f",
                             "0:1b:2c:3d:4e:5f",
                             "00-1b-2c-3d-4e-5f",
                             "001b2c3d4e5f",
                             "00:1b:2c:3d:4e:5g",
                             "00:1b:2c:3d:4e:/f",
                             "00:1b:2c:3d:4e:@f",
                             "00:1b:2c:3d:4e:`f"}) {
        uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
        EXPECT_EQ(str_to_mac(text, mac), -1) << text;
        EXPECT_EQ(memcmp(mac, zeros, 6), 0) << text;
    }
    uint8_t mac[6];
    EXPECT_EQ(str_to_mac(nullptr, mac), -1);
}

TEST(KorvaIpToStr, ReadsThePlatformsAddressValue) {
    uint8_t address[20] = {};
    char text[46];
    const uint16_t ipv4 = AF_INET;
    const uint32_t ip = 0x0A010203;
    memcpy(address, &ipv4, sizeof ipv4);
    memcpy(address + 4, &ip, sizeof ip);
    EXPECT_EQ(korva_ip_to_str_hton(address, text, sizeof text), text);
    EXPECT_STREQ(text, "10.1.2.3");
    const uint16_t ipv6 = AF_INET6;
    memcpy(address, &ipv6, sizeof ipv6);
    inet_pton(AF_INET6, "2001:db8::1", address + 4);
    EXPECT_STREQ(korva_ip_to_str_hton(address, text, sizeof text), "2001:db8::1");
    EXPECT_STREQ(korva_ip_to_str_hton(address, text, 8), "");
}

TEST(KorvaIpToStr, IsEmptyForAnUnknownFamily) {
    uint8_t address[21] = {};
    char text[46] = "before";
    EXPECT_STREQ(korva_ip_to_str_hton(address + 1, text, sizeof text), "");  // not aligned either
}

TEST(List, GoesThroughItsEntriesInOrder) {
    List *list = ListCreate();
    ASSERT_NE(list, nullptr);
    int entries[100];
    for (int &entry : entries)
        ASSERT_EQ(ListAppend(list, &entry), 0);
    EXPECT_EQ(ListCount(list), 100U);
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(ListGet(list, LIST_REWIND), nullptr);
        for (int &entry : entries)
            EXPECT_EQ(ListGet(list, LIST_NEXT), &entry);
        EXPECT_EQ(ListGet(list, LIST_NEXT), nullptr);
        EXPECT_EQ(ListGet(list, LIST_NEXT), nullptr);
    }
    EXPECT_EQ(ListGet(list, 2), nullptr);
    ListDestroy(list);
}

TEST(List, IsEmptyOnceCleared) {
    List *list = ListCreate();
    int entry;
    ListAppend(list, &entry);
    EXPECT_EQ(ListGet(list, LIST_NEXT), &entry);
    ListClear(list);
    EXPECT_EQ(ListCount(list), 0U);
    EXPECT_EQ(ListGet(list, LIST_NEXT), nullptr);
    ListAppend(list, &entry);
    EXPECT_EQ(ListGet(list, LIST_NEXT), &entry);
    ListDestroy(list);
    ListDestroy(nullptr);
}

TEST(Hash, FindsWhatWasInserted) {
    HashTable *table = new_table();
    EXPECT_EQ(HashStringFind(table, "a"), nullptr);
    char *a = value("A");
    EXPECT_EQ(HashStringInsertKeyAndValue(table, "a", a), 0);
    EXPECT_EQ(HashStringFind(table, "a"), a);
    EXPECT_EQ(HashStringFind(table, "ab"), nullptr);
    EXPECT_EQ(HashStringFind(table, ""), nullptr);
    EXPECT_EQ(HashCount(table), 1U);
}

TEST(Hash, KeepsACopyOfTheKey) {
    HashTable *table = new_table();
    char key[] = "key";
    HashStringInsertKeyAndValue(table, key, value("x"));
    key[0] = 'K';
    EXPECT_NE(HashStringFind(table, "key"), nullptr);
}

TEST(Hash, IteratesInTheOrderOfInsertion) {
    HashTable *table = new_table();
    Texts expected;
    for (int i = 0; i < 1000; i++) {  // far beyond the hint
        expected.push_back("tun" + std::to_string(i * 7919 % 1000));
        HashStringInsertKeyAndValue(table, expected.back().c_str(), value(expected.back().c_str()));
    }
    EXPECT_EQ(values_of(table), expected);
    EXPECT_EQ(values_of(table), expected);
    EXPECT_EQ(HashCount(table), 1000U);
    for (const std::string &key : expected)
        EXPECT_STREQ(static_cast<char *>(HashStringFind(table, key.c_str())), key.c_str());
    EXPECT_EQ(HashGet(table, HASH_NEXT), nullptr);
    EXPECT_EQ(HashGet(table, 2), nullptr);
}

TEST(Hash, ReplacesAValueInItsPlaceAndFreesTheOldOne) {
    HashTable *table = new_table();
    for (const char *key : {"a", "b", "c"})
        HashStringInsertKeyAndValue(table, key, value(key));
    EXPECT_EQ(HashStringInsertKeyAndValue(table, "b", value("B")), 0);  // the leak checker looks for the old one
    EXPECT_EQ(values_of(table), (Texts{"a", "B", "c"}));
    void *same = HashStringFind(table, "b");
    EXPECT_EQ(HashStringInsertKeyAndValue(table, "b", same), 0);
    EXPECT_EQ(values_of(table), (Texts{"a", "B", "c"}));
    EXPECT_EQ(HashCount(table), 3U);
}

TEST(Hash, RemovesAnEntryButNotItsValue) {
    HashTable *table = new_table();
    for (const char *key : {"a", "b", "c"})
        HashStringInsertKeyAndValue(table, key, value(key));
    void *b = HashStringFind(table, "b");
    EXPECT_EQ(HashStringRemove(table, "b"), 0);
    EXPECT_STREQ(static_cast<char *>(b), "b");
    free(b);
    EXPECT_EQ(HashStringRemove(table, "b"), -1);
    EXPECT_EQ(HashStringFind(table, "b"), nullptr);
    EXPECT_EQ(values_of(table), (Texts{"a", "c"}));
    for (const char *key : {"c", "a"}) {
        free(HashStringFind(table, key));
        EXPECT_EQ(HashStringRemove(table, key), 0);
    }
    EXPECT_EQ(values_of(table), Texts{});
    EXPECT_EQ(HashCount(table), 0U);
    HashStringInsertKeyAndValue(table, "d", value("d"));
    EXPECT_EQ(values_of(table), Texts{"d"});
}

TEST(Hash, MayLoseEntriesWhileItIsIterated) {
    HashTable *table = new_table();
    for (const char *key : {"a", "b", "c", "d"})
        HashStringInsertKeyAndValue(table, key, value(key));
    Texts seen;
    for (void *each = HashGet(table, HASH_FIRST); each; each = HashGet(table, HASH_NEXT)) {
        const std::string key = static_cast<char *>(each);
        seen.push_back(key);
        if (key == "b")  // itself and the next one
            for (const char *gone : {"b", "c"}) {
                free(HashStringFind(table, gone));
                HashStringRemove(table, gone);
            }
    }
    EXPECT_EQ(seen, (Texts{"a", "b", "d"}));
}

TEST(Hash, KeepsNumbersApartFromTexts) {
    HashTable *table = new_table(0);
    hash_insert_number(table, 416, value("number"));
    hash_insert_number(table, -1, value("negative"));
    HashStringInsertKeyAndValue(table, "416", value("text"));
    EXPECT_STREQ(static_cast<char *>(HashFind(table, 416)), "number");
    EXPECT_STREQ(static_cast<char *>(HashFind(table, -1)), "negative");
    EXPECT_STREQ(static_cast<char *>(HashStringFind(table, "416")), "text");
    EXPECT_EQ(HashFind(table, 0), nullptr);
    hash_insert_number(table, 416, value("again"));
    EXPECT_EQ(values_of(table), (Texts{"again", "negative", "text"}));
}

}  // namespace
