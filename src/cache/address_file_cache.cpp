// Address cache files: /var/orvdns.cache (IPv4) and /var/orvdnsaaaa.cache
// (IPv6), filled and read by the application.
//
// Format: "maxnumber %u\n", "maxtime %u\n", then one record per line, oldest
// first: name, address (IPv4 as the ulIpv4 value in decimal, IPv6 as text),
// time stamp, time to live (0xFFFFFFFF: the file's maxtime applies).
#include "cache/address_file_cache.h"

#include <arpa/inet.h>
#include <cstring>

#include "base/text_file.h"
#include "config/cache_params.h"

using namespace vekdns::detail;

namespace {

constexpr size_t address_text_size = 64;
constexpr size_t name_buffer_size = 128;
constexpr uint32_t ttl_use_max_time = 0xFFFFFFFFu;
constexpr mode_t created_file_mode = 0777;

// The file of a family (the step the logs call DNS_OpenCacheFile).
const char *cache_path_of(uint32_t family) {
    if (family == DNS_IP_TYPE_IPV4) {
        return vekdns::ipv4_cache_path;
    }
    if (family == DNS_IP_TYPE_IPV6) {
        return vekdns::ipv6_cache_path;
    }
    return nullptr;
}

// A text cut at 127 characters would lose its line feed and run into the
// next line written after it: end it with a line feed, so every line of the
// file still ends with one and stays within 127 characters.
void end_cut_text(char *text) {
    size_t len = strnlen(text, line_buffer_size);
    if (len != 0 && len < line_buffer_size && text[len - 1] != '\n') {
        text[len - 1] = '\n';
    }
}

uint32_t create_address_file(const char *path, const char *name, uint32_t ttl, const DNS_IPADDR_S &addr) {
    // The address is turned into text before the file is created, so a
    // failure leaves no empty file behind.
    char address[address_text_size] = {};
    if (addr.ulType == DNS_IP_TYPE_IPV6 &&
        PAL_Inet_Ntop(AF_INET6, addr.unIpAddr.aucIpv6, address, sizeof(address)) == nullptr) {
        return DNS_ERR_ADDR_TO_TEXT;
    }
    return create_file(path, vekdns::resolv_temp_path, created_file_mode, true, [&](text_file &file) {
        char text[line_buffer_size];
        const int number = static_cast<int>(vekdns::cache_default_max_number);
        const int time = static_cast<int>(vekdns::cache_default_max_time);
        const uint32_t now = PAL_GetSysTimeSec();
        // The whole text is one bounded format: a text cut at 127 characters stays as it was cut.
        if (addr.ulType == DNS_IP_TYPE_IPV4) {
            (void)format_line(text, "maxnumber %d\nmaxtime %d\n%s %u %u %u\n", number, time, name,
                              addr.unIpAddr.ulIpv4, now, ttl);
        } else {
            (void)format_line(text, "maxnumber %d\nmaxtime %d\n%s %s %u %u\n", number, time, name, address,
                              now, ttl);
        }
        return file.put(text) ? DNS_OK : DNS_ERR_WRITE_FILE;
    });
}

// Rewrites the file with the new record at its end. A full file (`full`)
// leaves out its first record with the smallest stamp; when it has none, the
// new record is not kept either. `cache` stands at the start.
uint32_t store_record(text_file &cache, const char *path, bool full, const char *name, uint32_t ttl,
                      const DNS_IPADDR_S &addr) {
    auto stamp_of = [](line_words &words, const char *&stamp) {
        (void)words.next();
        (void)words.next();
        stamp = words.next();
        return stamp != nullptr;
    };
    uint64_t candidate = 0;
    uint32_t ret = full ? find_oldest_line(cache, stamp_of, candidate) : DNS_OK;
    if (ret != DNS_OK) {
        return ret;
    }
    temp_rewrite temp(vekdns::resolv_temp_path, "write cache file failed!\r\n");
    if (!temp.open()) {
        return open_failed();
    }
    char piece[line_buffer_size] = {};
    char record[line_buffer_size] = {};
    uint64_t line_no = 0;
    while (cache.next_piece(piece)) {
        if (++line_no == candidate) {
            continue;
        }
        if (!temp.out.put(piece)) {
            return write_failed();
        }
    }
    if (!cache.ended()) {
        return cache.stop_code();
    }
    if (!full || candidate != 0) {
        ret = dnsFormatCacheRecord(name, record, ttl, addr);
        if (ret != DNS_OK) {
            return ret;
        }
        if (!temp.out.put(record)) {
            return write_failed();
        }
    }
    return temp.commit(cache, path);
}

} // namespace

uint32_t dnsFormatCacheRecord(const char *pszName, char *pszBuf, uint32_t ulTtl, DNS_IPADDR_S stIpAddr) {
    (void)memset_s(pszBuf, line_buffer_size, 0, line_buffer_size);
    int len;
    if (stIpAddr.ulType == DNS_IP_TYPE_IPV4) {
        len = format_line(pszBuf, "%s %u %u %u\n", pszName, stIpAddr.unIpAddr.ulIpv4, PAL_GetSysTimeSec(),
                          ulTtl);
    } else if (stIpAddr.ulType == DNS_IP_TYPE_IPV6) {
        char address[address_text_size] = {};
        if (PAL_Inet_Ntop(AF_INET6, stIpAddr.unIpAddr.aucIpv6, address, sizeof(address)) == nullptr) {
            return DNS_ERR_ADDR_TO_TEXT;
        }
        len = format_line(pszBuf, "%s %s %u %u\n", pszName, address, PAL_GetSysTimeSec(), ulTtl);
    } else {
        return DNS_OK;
    }
    if (len < 0) {
        end_cut_text(pszBuf); // a cut line is not an error
    }
    return DNS_OK;
}

extern "C" {

VEK_DNS_API uint32_t DNS_SetIpToFileCache(const char *pszName, uint32_t ulTtl, DNS_IPADDR_S stIpAddr) {
    const char *path = cache_path_of(stIpAddr.ulType);
    if (path == nullptr) {
        return open_failed();
    }
    if (pszName == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    if (PAL_Access(path, 0) == -1) {
        return create_address_file(path, pszName, ulTtl, stIpAddr);
    }
    text_file cache(path, "r");
    if (!cache.is_open()) {
        return open_failed();
    }
    // Count the lines; only the first is examined for "maxnumber" (a file
    // without it is taken as holding at most 0 records).
    char piece[line_buffer_size] = {};
    uint64_t lines = 0;
    uint32_t max_number = 0;
    while (cache.next_piece(piece)) {
        if (++lines != 1) {
            continue;
        }
        line_words words(piece);
        if (word_is(words.next(), "maxnumber") && !take_value(words, &max_number)) {
            return DNS_ERR_FILE_FORMAT;
        }
    }
    if (!cache.ended()) {
        return cache.stop_code();
    }
    if (!cache.rewind()) {
        return DNS_ERR_SEEK_FILE;
    }
    // Counted in 64 bits: a maxnumber near 2^32 must not wrap around.
    const uint64_t full_lines = static_cast<uint64_t>(max_number) + 2;
    if (full_lines < lines) {
        return DNS_ERR_FILE_FORMAT;
    }
    // An append goes through the rewrite as well: a file is never left with
    // half a line.
    return store_record(cache, path, full_lines == lines, pszName, ulTtl, stIpAddr);
}

VEK_DNS_API uint32_t DNS_GetIpFromFileCache(const char *pszName, DNS_IPADDR_S *pstIpAddr, uint32_t *pulNum) {
    DNS_LOG(6, "Entern DNS_GetIpFromFileCache");
    if (pszName == nullptr || pstIpAddr == nullptr || pulNum == nullptr) {
        DNS_LOG(3, "DNS_GetIpFromFileCache param is null");
        return DNS_ERR_PARA_INVALID;
    }
    const uint32_t family = pstIpAddr[0].ulType;
    const char *path = cache_path_of(family);
    text_file cache;
    if (path == nullptr || !cache.open(path, "r")) {
        DNS_LOG(3, "DNS_GetIpFromFileCache DNS_OpenCacheFile failed");
        return DNS_ERR_OPEN_FILE;
    }
    temp_rewrite temp(vekdns::resolv_temp_path, "write cache file failed!\r\n");
    if (!temp.open()) {
        return open_failed();
    }

    // First pass: the line count and the two parameters.
    char piece[line_buffer_size] = {};
    uint64_t lines = 0;
    uint32_t max_number = 0;
    uint32_t max_time = 0;
    while (cache.next_piece(piece)) {
        if (++lines > 2) {
            continue;
        }
        line_words words(piece);
        const char *first = words.next();
        if (first == nullptr || !read_parameter(first, words, &max_number, &max_time)) {
            return DNS_ERR_FILE_FORMAT;
        }
    }
    if (!cache.ended()) {
        return cache.stop_code();
    }
    if (!cache.rewind()) {
        return DNS_ERR_SEEK_FILE;
    }
    if (lines == 2) {
        return DNS_ERR_FILE_FORMAT;
    }

    // Lines 3 to `last_dropped` are the oldest records over the count limit.
    const uint64_t full_lines = static_cast<uint64_t>(max_number) + 2;
    const uint64_t last_dropped = lines > full_lines ? lines - max_number : 0;
    const uint32_t now = PAL_GetSysTimeSec();
    uint32_t found = 0;
    uint32_t result = DNS_ERR_NOT_FOUND;
    uint64_t line_no = 0;
    while (cache.next_piece(piece)) {
        ++line_no;
        if (line_no > 2 && line_no <= last_dropped) {
            continue;
        }
        if (line_no > 2) {
            line_words words(piece);
            const char *name = words.next();
            const char *address = words.next();
            const char *stamp = words.next();
            const char *ttl = words.next();
            if (name == nullptr || address == nullptr || stamp == nullptr || ttl == nullptr) {
                return DNS_ERR_FILE_FORMAT;
            }
            char name_copy[name_buffer_size] = {};
            char address_copy[address_text_size] = {};
            copy_text(name_copy, name);
            copy_text(address_copy, address);
            if (PAL_StrCmp(name_copy, pszName) == 0) {
                const uint32_t ttl_value = word_to_u32(ttl);
                const uint32_t limit = ttl_value == ttl_use_max_time ? max_time : ttl_value;
                const uint32_t age = now - word_to_u32(stamp);
                if (age >= limit) {
                    result = DNS_ERR_CACHE_EXPIRED; // dropped from the file
                    continue;
                }
                result = DNS_OK;
                if (found < DNS_MAX_IP_NUM) {
                    DNS_IPADDR_S &out = pstIpAddr[found];
                    std::memset(&out, 0, sizeof(out));
                    out.ulType = family;
                    if (family == DNS_IP_TYPE_IPV4) {
                        out.unIpAddr.ulIpv4 = word_to_u32(address_copy);
                    } else if (PAL_Inet_Pton(AF_INET6, address_copy, out.unIpAddr.aucIpv6) <= 0) {
                        return DNS_ERR_TEXT_TO_ADDR;
                    }
                    ++found;
                }
            }
        }
        if (!temp.out.put(piece)) {
            return write_failed();
        }
    }
    if (!cache.ended()) {
        return cache.stop_code();
    }
    if (uint32_t ret = temp.commit(cache, path); ret != DNS_OK) {
        return ret;
    }
    DNS_LOG(6, "get ip from cache success!!!\r\n");
    *pulNum = found;
    return result;
}

} // extern "C"
