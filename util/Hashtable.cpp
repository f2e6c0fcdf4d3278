// Hashtable.cpp: a table from text keys to opaque pointers. Every key has one
// bucket of consecutive slots, filled from its first slot; a full bucket makes
// the whole table grow (twice the buckets, one slot deeper).
#include "Hashtable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

Hashtable::Hashtable() { init(32, 8); }

Hashtable::Hashtable(int buckets) { init(buckets, 8); }

Hashtable::Hashtable(int buckets, int slots) { init(buckets, slots); }

// Releases every key copy and both slot arrays; values are not ours.
Hashtable::~Hashtable() {
    removeAll();
    free(keys);
    free(values);
}

// Empties the table and gives it `buckets` buckets of `slots` slots each.
// Resize reports are on (debugLevel 1) until the owner says otherwise.
void Hashtable::init(int buckets, int slots) {
    count = 0;
    numBuckets = buckets;
    bucketSize = slots;
    debugLevel = 1;
    size_t n = (size_t)buckets * (size_t)slots;
    keys = (char**)calloc(n ? n : 1, sizeof(char*));
    values = (void**)calloc(n ? n : 1, sizeof(void*));
}

// Returns 31*h + c over the key's characters, taken as signed bytes, with
// 32-bit wrap-around; "" hashes to 0. Prints the hash at debug level 2.
int Hashtable::hashVal(char* key) {
    unsigned int h = 0;
    if (key[0] != '\0') {
        h = (unsigned int)(int)(signed char)key[0];
        for (const char* p = key + 1; *p; ++p)
            h = 31u * h + (unsigned int)(int)(signed char)*p;
    }
    if (debugLevel >= 2) printf("hashcode: %s -> %d\n", key, (int)h);
    return (int)h;
}

// The first slot of the bucket `key` falls into under the given geometry.
static int bucketStart(unsigned int hash, int buckets, int slots) {
    return (int)(hash % (unsigned int)buckets) * slots;
}

// Looks `key` up in its bucket. Returns the slot holding it, or -1 with
// `freeSlot` set to the first empty slot (or -1 when the bucket is full).
static int findSlot(Hashtable& t, char* key, int& freeSlot) {
    int start = bucketStart((unsigned int)t.hashVal(key), t.numBuckets, t.bucketSize);
    freeSlot = -1;
    for (int i = start; i < start + t.bucketSize; ++i) {
        if (t.keys[i] == nullptr) {
            freeSlot = i;
            return -1;
        }
        if (strcmp(t.keys[i], key) == 0) return i;
    }
    return -1;
}

// Stores a copy of `key` with `value`. Returns true (and changes nothing) when
// the key is already present, false once the entry is stored, growing the
// table as often as it takes for the key's bucket to have room.
bool Hashtable::put(char* key, void* value) {
    int freeSlot;
    if (findSlot(*this, key, freeSlot) >= 0) return true;
    if (freeSlot >= 0) {
        size_t len = strlen(key);
        char* copy = (char*)malloc(len + 1);
        memcpy(copy, key, len + 1);
        keys[freeSlot] = copy;
        values[freeSlot] = value;
        count++;
        return false;
    }
    int buckets = 2 * numBuckets;
    int slots = bucketSize + 1;
    while (resizeTable(buckets, slots) == 1) slots++;
    return put(key, value);
}

// Returns the value stored for `key`, or null when it is absent.
void* Hashtable::get(char* key) {
    int freeSlot;
    int i = findSlot(*this, key, freeSlot);
    return i >= 0 ? values[i] : nullptr;
}

// Returns the stored value when get() finds a non-null one; otherwise stores
// `value` under `key` and returns it.
void* Hashtable::getOrPut(char* key, void* value) {
    void* v = get(key);
    if (v != nullptr) return v;
    put(key, value);
    return value;
}

// Removes `key`, shifting the rest of its bucket down so the occupied slots
// stay first. Returns 0 when removed, 1 when the key was not there.
int Hashtable::remove(char* key) {
    if (count == 0) return 1;
    int freeSlot;
    int i = findSlot(*this, key, freeSlot);
    if (i < 0) return 1;
    free(keys[i]);
    int end = (i / bucketSize) * bucketSize + bucketSize;
    int j = i;
    while (j + 1 < end && keys[j + 1] != nullptr) {
        keys[j] = keys[j + 1];
        values[j] = values[j + 1];
        j++;
    }
    keys[j] = nullptr;
    values[j] = nullptr;
    count--;
    return 0;
}

// Drops every entry and its key copy; the geometry stays as it is.
void Hashtable::removeAll() {
    int n = numBuckets * bucketSize;
    for (int i = 0; i < n; ++i) {
        free(keys[i]);
        keys[i] = nullptr;
        values[i] = nullptr;
    }
    count = 0;
}

int Hashtable::size() { return count; }

void Hashtable::setDebugLevel(int level) { debugLevel = level; }

// Returns the first occupied slot after `index`, or -1; nextIndex(-1) starts a walk.
int Hashtable::nextIndex(int index) {
    int n = numBuckets * bucketSize;
    for (int i = index + 1; i < n; ++i)
        if (keys[i] != nullptr) return i;
    return -1;
}

char* Hashtable::getIndexKey(int index) { return keys[index]; }

void* Hashtable::getIndexVal(int index) { return values[index]; }

// Rehashes every entry into a buckets x slots geometry, keeping the key copies.
// Returns 0 when installed, or 1 when some bucket overflows, leaving the table
// as it was.
int Hashtable::resizeTable(int buckets, int slots) {
    if (debugLevel != 0) printf("Resizing max table size to %dx%d\n", buckets, slots);
    size_t n = (size_t)buckets * (size_t)slots;
    char** newKeys = (char**)calloc(n ? n : 1, sizeof(char*));
    void** newValues = (void**)calloc(n ? n : 1, sizeof(void*));
    int old = numBuckets * bucketSize;
    for (int i = 0; i < old; ++i) {
        if (keys[i] == nullptr) continue;
        int start = bucketStart((unsigned int)hashVal(keys[i]), buckets, slots);
        int k = start;
        while (k < start + slots && newKeys[k] != nullptr) k++;
        if (k == start + slots) {
            free(newKeys);
            free(newValues);
            return 1;
        }
        newKeys[k] = keys[i];
        newValues[k] = values[i];
    }
    free(keys);
    free(values);
    keys = newKeys;
    values = newValues;
    numBuckets = buckets;
    bucketSize = slots;
    return 0;
}
