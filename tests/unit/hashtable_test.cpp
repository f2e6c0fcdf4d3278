// hashtable_test.cpp: the string-keyed table: hashing, bucket overflow and
// growth, removal keeping buckets packed, and the walk over all entries.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "Hashtable.h"
#include "TestSupport.h"

namespace {

void* P(long v) { return reinterpret_cast<void*>(v); }
char* K(const std::string& s) { return const_cast<char*>(s.c_str()); }

// `n` distinct keys that all land in the bucket of "key0" among `buckets` buckets.
std::vector<std::string> keysInOneBucket(Hashtable& t, int buckets, size_t n) {
    auto bucket = [&](const std::string& k) { return (unsigned)t.hashVal(K(k)) % buckets; };
    std::vector<std::string> v;
    for (int i = 0; v.size() < n; ++i)
        if (std::string k = "key" + std::to_string(i); bucket(k) == bucket("key0")) v.push_back(k);
    return v;
}

TEST(Hashtable, HashPutAndGetOrPut) {
    Hashtable t(6, 1);
    t.setDebugLevel(0);
    EXPECT_EQ(t.hashVal(K("")), 0);
    EXPECT_EQ(t.hashVal(K("ab")), 3105);
    EXPECT_EQ(t.hashVal(K("\xC8\xC8")), -56 * 31 - 56);  // 0xC8 is -56, not 200
    EXPECT_EQ(t.hashVal(K("polygenelubricants")), (int)0x80000000);  // wraps at 32 bits
    // "\xFF" hashes to -1: as unsigned that is 3 modulo 6 (a signed % says -1).
    EXPECT_FALSE(t.put(K("\xFF"), P(7)));
    EXPECT_STREQ(t.keys[3], "\xFF");
    EXPECT_EQ(t.get(K("\xFF")), P(7));

    // put keeps the first value and its own copy of the key.
    Hashtable u;
    char buf[8] = "a";
    EXPECT_FALSE(u.put(buf, P(1)));
    EXPECT_TRUE(u.put(K("a"), P(2)));
    buf[0] = 'z';
    EXPECT_EQ(u.get(K("a")), P(1));
    EXPECT_EQ(u.getOrPut(K("k"), P(5)), P(5));
    EXPECT_EQ(u.getOrPut(K("k"), P(9)), P(5));
    EXPECT_EQ(u.size(), 2);
}

TEST(Hashtable, FullBucketGrowsTableAndReportsIt) {
    Hashtable t;
    std::vector<std::string> keys = keysInOneBucket(t, 32, 9);
    for (int i = 0; i < 8; ++i) t.put(K(keys[i]), P(i + 1));
    EXPECT_EQ(stdoutOf([&] { EXPECT_FALSE(t.put(K(keys[8]), P(9))); }), "Resizing max table size to 64x9\n");
    EXPECT_EQ(t.numBuckets * 100 + t.bucketSize, 6409);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(t.get(K(keys[i])), P(i + 1)) << keys[i];

    // A resize that does not fit leaves the table alone (growth then retries
    // with deeper buckets), silently at level 0.
    Hashtable one(1, 4);
    one.setDebugLevel(0);
    for (const char* k : {"w", "x", "y", "z"}) one.put(K(k), P(k[0]));
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(one.resizeTable(1, 3), 1); }), "");
    EXPECT_EQ(one.numBuckets * 100 + one.bucketSize, 104);
    for (const char* k : {"w", "x", "y", "z"}) EXPECT_EQ(one.get(K(k)), P(k[0])) << k;
}

TEST(Hashtable, RemoveKeepsBucketPackedAndRemoveAllEmpties) {
    Hashtable t;
    std::vector<std::string> k = keysInOneBucket(t, 32, 3);
    for (int i = 0; i < 3; ++i) t.put(K(k[i]), P(i + 1));
    int at = (int)((unsigned int)t.hashVal(K(k[0])) % 32u) * 8;
    auto bucket = [&](std::string s = "") {
        for (int i = at; i < at + 4; ++i) s += (t.keys[i] ? t.keys[i] : "-") + std::string(" ");
        return s;
    };
    EXPECT_EQ(t.remove(K(k[0])), 0);
    EXPECT_EQ(t.remove(K(k[0])), 1);
    EXPECT_EQ(bucket(), k[1] + " " + k[2] + " - - ");
    EXPECT_EQ(t.values[at + 1], P(3));
    EXPECT_EQ(t.remove(K(k[2])), 0);  // the last occupied slot: just that one empties
    EXPECT_EQ(bucket(), k[1] + " - - - ");
    EXPECT_EQ(t.size(), 1);

    Hashtable w(4, 2);  // grows while filling; the walk still sees every entry
    w.setDebugLevel(0);
    std::map<std::string, long> want, seen;
    for (long i = 0; i < 20; ++i) want["e" + std::to_string(i)] = i + 100;
    for (auto& [key, v] : want) w.put(K(key), P(v));
    for (int i = w.nextIndex(-1); i != -1; i = w.nextIndex(i))
        seen[w.getIndexKey(i)] = (long)w.getIndexVal(i);
    EXPECT_EQ(seen, want);
    int geometry = w.numBuckets * 100 + w.bucketSize;
    w.removeAll();  // empty, with the geometry it had
    EXPECT_EQ(std::make_tuple(w.size(), w.nextIndex(-1), w.numBuckets * 100 + w.bucketSize),
              std::make_tuple(0, -1, geometry));
    EXPECT_FALSE(w.put(K("e3"), P(1)));  // stored anew, not found stale
    EXPECT_EQ(w.get(K("e3")), P(1));
}

}  // namespace
