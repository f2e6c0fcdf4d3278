// hashtable_test.cpp: the string-keyed table: the bucket of a high byte, bucket
// overflow and growth, removal keeping buckets packed, and the walk over all entries.
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

// Bytes hash as signed chars: "\xFF" hashes to -1, which as unsigned is bucket
// 3 of 6 (a signed % would give -1, before the table).
// (Each key is the table's own copy: the error counts of tests/tcl err-3.1 are
// put from one reused buffer.)
TEST(Hashtable, HighByteKeyHashesIntoItsBucket) {
    Hashtable t(6, 1);
    t.setDebugLevel(0);
    EXPECT_FALSE(t.put(K("\xFF"), P(7)));
    EXPECT_STREQ(t.keys[3], "\xFF");
    EXPECT_EQ(t.get(K("\xFF")), P(7));
}

TEST(Hashtable, FullBucketGrowsTableAndReportsIt) {
    Hashtable t;
    std::vector<std::string> keys = keysInOneBucket(t, 32, 9);
    for (int i = 0; i < 8; ++i) t.put(K(keys[i]), P(i + 1));
    EXPECT_EQ(stdoutOf([&] { EXPECT_FALSE(t.put(K(keys[8]), P(9))); }), "Resizing max table size to 64x9\n");
    for (int i = 0; i < 9; ++i) EXPECT_EQ(t.get(K(keys[i])), P(i + 1)) << keys[i];
}

TEST(Hashtable, RemoveKeepsBucketPackedAndRemoveAllEmpties) {
    Hashtable t;
    std::vector<std::string> k = keysInOneBucket(t, 32, 3);
    for (int i = 0; i < 3; ++i) t.put(K(k[i]), P(i + 1));
    // A lookup stops at the bucket's first empty slot: a hole would hide the rest.
    EXPECT_EQ(t.remove(K(k[0])), 0);
    EXPECT_EQ(t.remove(K(k[0])), 1);
    EXPECT_EQ(std::make_pair(t.get(K(k[1])), t.get(K(k[2]))), std::make_pair(P(2), P(3)));
    EXPECT_EQ(t.remove(K(k[2])), 0);  // the last occupied slot: just that one empties
    EXPECT_EQ(std::make_tuple(t.get(K(k[1])), t.get(K(k[2])), t.size()), std::make_tuple(P(2), P(0), 1));

    Hashtable w(4, 2);  // grows while filling; the walk still sees every entry
    w.setDebugLevel(0);
    std::map<std::string, long> want, seen;
    for (long i = 0; i < 20; ++i) want["e" + std::to_string(i)] = i + 100;
    for (auto& [key, v] : want) w.put(K(key), P(v));
    for (int i = w.nextIndex(-1); i != -1; i = w.nextIndex(i))
        seen[w.getIndexKey(i)] = (long)w.getIndexVal(i);
    EXPECT_EQ(seen, want);
    w.removeAll();
    EXPECT_EQ(std::make_pair(w.size(), w.nextIndex(-1)), std::make_pair(0, -1));
}

}  // namespace
