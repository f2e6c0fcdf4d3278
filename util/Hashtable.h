// Hashtable.h: text keys (owned copies) to opaque pointer values (not owned).
// Open addressing within fixed-size buckets; an overflowing bucket grows the table.
#pragma once

class Hashtable {
public:
    int    count;
    int    numBuckets;
    int    bucketSize;
    int    debugLevel;
    char** keys;
    void** values;

    Hashtable();
    explicit Hashtable(int buckets);
    Hashtable(int buckets, int slots);
    ~Hashtable();
    Hashtable(const Hashtable&) = delete;
    Hashtable& operator=(const Hashtable&) = delete;

    void  init(int buckets, int slots);
    int   hashVal(char* key);
    bool  put(char* key, void* value);
    void* get(char* key);
    void* getOrPut(char* key, void* value);
    int   remove(char* key);
    void  removeAll();
    int   size();
    void  setDebugLevel(int level);
    int   nextIndex(int index);
    char* getIndexKey(int index);
    void* getIndexVal(int index);
    int   resizeTable(int buckets, int slots);
};
