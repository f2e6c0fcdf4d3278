// DeviceText.cpp: the number rule and the messages of device text options.
#include "DeviceText.h"
#include <cerrno>
#include <cstdlib>

namespace mqb {
namespace devtext {

bool parseNumber(const std::string& text, uint64_t& out) {
    if (text.empty() || text[0] == '-' || text[0] == '+') return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0') return false;
    out = v;
    return true;
}

std::string notKeyValue(const std::string& item) {
    return "device text item \"" + item + "\" is not key=value";
}

std::string unknownKey(const std::string& key) { return "unknown device text key \"" + key + "\""; }

std::string badValue(const std::string& key, const std::string& text) {
    return "bad value \"" + text + "\" for device text key \"" + key + "\"";
}

bool number(const std::string& key, const std::string& text, uint64_t lo, uint64_t hi,
            uint64_t& out, std::string& err) {
    uint64_t v = 0;
    if (!parseNumber(text, v) || v < lo || v > hi) {
        err = badValue(key, text);
        return false;
    }
    out = v;
    return true;
}

bool takeTrailingOption(std::string& text, const std::string& key, uint64_t lo, uint64_t hi,
                        uint64_t& out, std::string& err) {
    const std::string tag = "," + key + "=";
    const size_t at = text.rfind(tag);
    if (at == std::string::npos) return true;
    if (!number(key, text.substr(at + tag.size()), lo, hi, out, err)) return false;
    text.resize(at);
    return true;
}

}  // namespace devtext
}  // namespace mqb
