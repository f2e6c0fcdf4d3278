// hashtable_test.cpp: the string-keyed table: hashing, bucket overflow and
// growth, removal keeping buckets packed, and the walk over all entries.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Hashtable.h"

namespace {

void* P(long v) { return reinterpret_cast<void*>(v); }
char* K(const std::string& s) { return const_cast<char*>(s.c_str()); }

// Up to `n` distinct keys that all land in one bucket of a table with
// `buckets` buckets.
std::vector<std::string> keysInOneBucket(Hashtable& t, int buckets, size_t n) {
    std::map<unsigned int, std::vector<std::string>> byBucket;
    for (int i = 0; i < 100000; ++i) {
        std::string k = "key" + std::to_string(i);
        auto& v = byBucket[(unsigned int)t.hashVal(K(k)) % (unsigned int)buckets];
        v.push_back(k);
        if (v.size() == n) return v;
    }
    return {};
}

TEST(Hashtable, NewTableIsEmptyWithDefaultGeometry) {
    Hashtable t;
    EXPECT_EQ(t.numBuckets, 32);
    EXPECT_EQ(t.bucketSize, 8);
    EXPECT_EQ(t.debugLevel, 1);
    EXPECT_EQ(t.size(), 0);
    EXPECT_EQ(t.nextIndex(-1), -1);
    Hashtable a(5), b(3, 2);
    EXPECT_EQ(a.numBuckets * 100 + a.bucketSize, 508);
    EXPECT_EQ(b.numBuckets * 100 + b.bucketSize, 302);
}

TEST(Hashtable, HashIsThirtyOneFoldOverSignedChars) {
    Hashtable t;
    EXPECT_EQ(t.hashVal(K("")), 0);
    EXPECT_EQ(t.hashVal(K("a")), 97);
    EXPECT_EQ(t.hashVal(K("ab")), 3105);
    // 0xC8 is taken as -56, not 200.
    EXPECT_EQ(t.hashVal(K("a\xC8")), 31 * 97 - 56);
    EXPECT_EQ(t.hashVal(K("\xFF")), -1);
    // Long keys wrap at 32 bits (the same values a Java String hash gives).
    EXPECT_EQ(t.hashVal(K("hello world")), 1794106052);
    EXPECT_EQ(t.hashVal(K("polygenelubricants")), (int)0x80000000);
}

TEST(Hashtable, NegativeHashPicksBucketAsUnsigned) {
    // -1 as unsigned is 4294967295, which is 3 modulo 6 (a signed % would say -1).
    Hashtable t(6, 1);
    t.setDebugLevel(0);
    EXPECT_FALSE(t.put(K("\xFF"), P(7)));
    EXPECT_STREQ(t.keys[3], "\xFF");
    EXPECT_EQ(t.get(K("\xFF")), P(7));
}

TEST(Hashtable, DebugLevelTwoReportsHashes) {
    Hashtable t;
    t.setDebugLevel(2);
    testing::internal::CaptureStdout();
    t.hashVal(K("ab"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "hashcode: ab -> 3105\n");
}

TEST(Hashtable, PutKeepsFirstValueAndCopiesKey) {
    Hashtable t;
    char buf[8] = "a";
    EXPECT_FALSE(t.put(buf, P(1)));
    EXPECT_TRUE(t.put(K("a"), P(2)));
    EXPECT_EQ(t.get(K("a")), P(1));
    EXPECT_EQ(t.size(), 1);
    buf[0] = 'z';  // the table holds its own copy
    EXPECT_EQ(t.get(K("a")), P(1));
    EXPECT_EQ(t.get(K("z")), nullptr);
    // A stored null cannot be told from a missing key.
    t.put(K("n"), nullptr);
    EXPECT_EQ(t.size(), 2);
    EXPECT_EQ(t.get(K("n")), t.get(K("absent")));
}

TEST(Hashtable, GetOrPutStoresOnlyWhenAbsent) {
    Hashtable t;
    EXPECT_EQ(t.getOrPut(K("k"), P(5)), P(5));
    EXPECT_EQ(t.getOrPut(K("k"), P(9)), P(5));
    EXPECT_EQ(t.get(K("k")), P(5));
    EXPECT_EQ(t.size(), 1);
}

TEST(Hashtable, FullBucketGrowsTableAndReportsIt) {
    Hashtable t;
    std::vector<std::string> keys = keysInOneBucket(t, 32, 9);
    ASSERT_EQ(keys.size(), 9u);
    for (int i = 0; i < 8; ++i) t.put(K(keys[i]), P(i + 1));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(t.put(K(keys[8]), P(9)));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Resizing max table size to 64x9\n");
    EXPECT_EQ(t.numBuckets, 64);
    EXPECT_EQ(t.bucketSize, 9);
    EXPECT_EQ(t.size(), 9);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(t.get(K(keys[i])), P(i + 1)) << keys[i];

    // Silent when the owner lowers the level.
    Hashtable q(2, 1);
    q.setDebugLevel(0);
    std::vector<std::string> two = keysInOneBucket(q, 2, 2);
    testing::internal::CaptureStdout();
    q.put(K(two[0]), P(1));
    q.put(K(two[1]), P(2));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(q.get(K(two[1])), P(2));
}

TEST(Hashtable, ResizeThatDoesNotFitLeavesTableAlone) {
    Hashtable t(1, 4);
    t.setDebugLevel(0);
    const char* keys[] = {"w", "x", "y", "z"};
    for (int i = 0; i < 4; ++i) t.put(K(keys[i]), P(i + 1));
    EXPECT_EQ(t.resizeTable(1, 3), 1);
    EXPECT_EQ(t.numBuckets, 1);
    EXPECT_EQ(t.bucketSize, 4);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(t.get(K(keys[i])), P(i + 1));
    EXPECT_EQ(t.resizeTable(1, 5), 0);
    EXPECT_EQ(t.bucketSize, 5);
    EXPECT_EQ(t.get(K("z")), P(4));
    // Growth retries with ever deeper buckets until the one-bucket table fits.
    Hashtable one(1, 1);
    one.setDebugLevel(0);
    one.put(K("a"), P(1));
    one.put(K("b"), P(2));
    one.put(K("c"), P(3));
    EXPECT_EQ(one.size(), 3);
    EXPECT_EQ(one.get(K("a")), P(1));
    EXPECT_EQ(one.get(K("c")), P(3));
}

TEST(Hashtable, RemoveShiftsBucketDown) {
    Hashtable t;
    EXPECT_EQ(t.remove(K("nothing")), 1);
    std::vector<std::string> k = keysInOneBucket(t, 32, 3);
    for (int i = 0; i < 3; ++i) t.put(K(k[i]), P(i + 1));
    int start = (int)((unsigned int)t.hashVal(K(k[0])) % 32u) * 8;
    EXPECT_EQ(t.remove(K(k[0])), 0);
    EXPECT_EQ(t.remove(K(k[0])), 1);
    EXPECT_EQ(t.size(), 2);
    EXPECT_STREQ(t.keys[start], k[1].c_str());
    EXPECT_EQ(t.values[start], P(2));
    EXPECT_STREQ(t.keys[start + 1], k[2].c_str());
    EXPECT_EQ(t.keys[start + 2], nullptr);
    EXPECT_EQ(t.values[start + 2], nullptr);
    EXPECT_EQ(t.get(K(k[2])), P(3));
    // Removing the last occupied slot empties just that slot.
    EXPECT_EQ(t.remove(K(k[2])), 0);
    EXPECT_EQ(t.keys[start + 1], nullptr);
    EXPECT_EQ(t.get(K(k[1])), P(2));
}

TEST(Hashtable, WalkAndRemoveAll) {
    Hashtable t(4, 2);
    t.setDebugLevel(0);
    std::map<std::string, long> want;
    for (int i = 0; i < 20; ++i) {
        std::string k = "e" + std::to_string(i);
        want[k] = i + 100;
        t.put(K(k), P(i + 100));
    }
    int grownBuckets = t.numBuckets, grownSlots = t.bucketSize;
    EXPECT_GT(grownBuckets, 4);
    std::map<std::string, long> seen;
    for (int i = t.nextIndex(-1); i != -1; i = t.nextIndex(i))
        seen[t.getIndexKey(i)] = (long)t.getIndexVal(i);
    EXPECT_EQ(seen, want);

    t.removeAll();
    EXPECT_EQ(t.size(), 0);
    EXPECT_EQ(t.nextIndex(-1), -1);
    EXPECT_EQ(t.get(K("e3")), nullptr);
    EXPECT_EQ(t.numBuckets, grownBuckets);
    EXPECT_EQ(t.bucketSize, grownSlots);
    EXPECT_FALSE(t.put(K("e3"), P(1)));
    EXPECT_EQ(t.get(K("e3")), P(1));
}

}  // namespace
