// DeviceText.h: reading the options of a device text, the string that names
// a device ("sim:blocks=1000,bs=4096", "file:PATH,direct=0",
// "iscsi://HOST/IQN/LUN?timeout=5"). Every device kind reads its key=value
// options through these, so numbers follow one rule (decimal, or hexadecimal
// after 0x; no sign) and a bad item gets the same message on every kind.
#pragma once
#include <cstdint>
#include <string>

namespace mqb {
namespace devtext {

// Parses the whole of `text` as a number. False on junk, a sign or overflow.
bool parseNumber(const std::string& text, uint64_t& out);

// The messages for an option that is not key=value, an unknown key and a bad
// value.
std::string notKeyValue(const std::string& item);
std::string unknownKey(const std::string& key);
std::string badValue(const std::string& key, const std::string& text);

// Reads option `key`'s `text` as a number from `lo` to `hi`. False with
// badValue in `err` otherwise.
bool number(const std::string& key, const std::string& text, uint64_t lo, uint64_t hi,
            uint64_t& out, std::string& err);

// When `text` (a path with options) ends in ",KEY=VALUE", reads VALUE as
// number() does, sets `out` and cuts the option off `text`; leaves both as
// they are when there is no such option. False only on a bad value.
bool takeTrailingOption(std::string& text, const std::string& key, uint64_t lo, uint64_t hi,
                        uint64_t& out, std::string& err);

// Calls f(key, value) for each non-empty item of `params` split at `sep`;
// f returns false (having set `err`) to stop. False with notKeyValue in
// `err` for an item without '='.
template <typename F>
bool forEachOption(const std::string& params, char sep, std::string& err, F&& f) {
    size_t pos = 0;
    while (pos < params.size()) {
        size_t end = params.find(sep, pos);
        if (end == std::string::npos) end = params.size();
        const std::string item = params.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty()) continue;
        const size_t eq = item.find('=');
        if (eq == std::string::npos) {
            err = notKeyValue(item);
            return false;
        }
        if (!f(item.substr(0, eq), item.substr(eq + 1))) return false;
    }
    return true;
}

}  // namespace devtext
}  // namespace mqb
