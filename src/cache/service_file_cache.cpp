// Service cache file /var/orvdnssrv.cache, filled and read by the application.
//
// Format: "maxnumber %d\n", "maxtime %d\n", then entries, oldest first. An
// entry is a head "name stamp n\n" followed by n record lines
// "tn: target priority weight port family address ttl \n". Every line whose
// first word is not "tn:" counts as a head, the parameter lines included.
#include "cache/service_file_cache.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

#include "config/cache_params.h"

using namespace vekdns::detail;

namespace {

constexpr const char *srv_temp_path = "/var/dnssrv.tmp";
constexpr size_t address_text_size = 64;
constexpr size_t target_size = sizeof(DNS_SRV_RR_S::szTarget);
constexpr size_t record_overhead = 39; // target + address + 39 must stay within 128
constexpr uint32_t ttl_use_max_time = 0xFFFFFFFFu;
constexpr mode_t created_file_mode = 0640;

bool is_record_line(const char *first_word) {
    return word_is(first_word, "tn:");
}

// Formats the head "%s %u %u\n"; false when it does not fit in 127 characters.
bool format_head(char (&head)[line_buffer_size], const char *name, uint32_t now, uint32_t count) {
    (void)memset_s(head, sizeof(head), 0, sizeof(head));
    return snprintf_s(head, sizeof(head), line_format_limit, "%s %u %u\n", name, now, count) >= 0;
}

// Formats the record lines of an entry and, when `out` is given, writes the
// head text and then the records to it.
uint32_t write_entry(text_file *out, const char *head, const DNS_SRV_RR_S *records, uint32_t count,
                     const uint32_t *ttls) {
    if (out != nullptr && !out->put(head)) {
        return DNS_ERR_WRITE_FILE;
    }
    char line[line_buffer_size];
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t ret = DNS_SrvCacheFormatTarget(&records[i], line, ttls[i]);
        if (ret != DNS_OK) {
            return ret;
        }
        if (out != nullptr && !out->put(line)) {
            return DNS_ERR_WRITE_FILE;
        }
    }
    return DNS_OK;
}

uint32_t create_service_file(const char *name, uint32_t now, const DNS_SRV_RR_S *records, uint32_t count,
                             const uint32_t *ttls) {
    char text[line_buffer_size] = {};
    if (snprintf_s(text, sizeof(text), line_format_limit, "maxnumber %d\nmaxtime %d\n%s %u %u\n",
                   static_cast<int>(vekdns::cache_default_max_number),
                   static_cast<int>(vekdns::cache_default_max_time), name, now, count) < 0) {
        return DNS_ERR_RECORD_INVALID;
    }
    return create_file(vekdns::srv_cache_path, srv_temp_path, created_file_mode, false,
                       [&](text_file &file) { return write_entry(&file, text, records, count, ttls); });
}

// Rewrites the file with the new entry at its end (an append goes through
// the rewrite too, so a file never keeps half an entry). A full file (`full`)
// leaves out its first entry with the smallest stamp (head and record lines).
// `cache` stands at the start.
uint32_t store_entry(text_file &cache, bool full, const char *head, const DNS_SRV_RR_S *records,
                     uint32_t count, const uint32_t *ttls) {
    auto stamp_of = [](line_words &words, const char *&stamp) {
        const char *first = words.next();
        if (first == nullptr) {
            return false;
        }
        if (is_record_line(first)) {
            return true; // no stamp on a record line
        }
        stamp = words.next();
        return stamp != nullptr;
    };
    uint64_t candidate = 0;
    uint32_t ret = full ? find_oldest_line(cache, stamp_of, candidate) : DNS_OK;
    if (ret != DNS_OK) {
        return ret;
    }
    temp_rewrite temp(srv_temp_path);
    if (!temp.open()) {
        return DNS_ERR_OPEN_FILE;
    }
    char piece[line_buffer_size] = {};
    bool leaving_out = false;
    uint64_t line_no = 0;
    while (cache.next_piece(piece)) {
        if (++line_no >= 3) {
            line_words words(piece);
            const char *first = words.next();
            if (first != nullptr && !is_record_line(first)) {
                leaving_out = line_no == candidate; // a head starts the next entry
            }
        }
        if (leaving_out) {
            continue;
        }
        if (!temp.out.put(piece)) {
            return DNS_ERR_WRITE_FILE;
        }
    }
    if (!cache.ended()) {
        return cache.stop_code();
    }
    // No candidate in a full file: it holds no entry at all (maxnumber 0),
    // and the new entry is not kept either.
    if (!full || candidate != 0) {
        ret = write_entry(&temp.out, head, records, count, ttls);
        if (ret != DNS_OK) {
            return ret;
        }
    }
    return temp.commit(cache, vekdns::srv_cache_path);
}

// Passes over one entry: reads lines up to the next entry head, which is left
// in `piece` as the current line (`have` false at the end of the file).
uint32_t DNS_SrvCacheTravelOneRecord(text_file &cache, char (&piece)[line_buffer_size], uint64_t &line_no,
                                     bool &have) {
    for (;;) {
        have = cache.next_piece(piece);
        if (!have) {
            return cache.ended() ? DNS_OK : cache.stop_code();
        }
        ++line_no;
        line_words words(piece);
        const char *first = words.next();
        if (first == nullptr) {
            return DNS_ERR_FILE_FORMAT;
        }
        if (!is_record_line(first)) {
            return DNS_OK;
        }
    }
}

// Whether the first `examine` records after the head at `head_line` are all
// live, read through a second handle on the file. A handle that cannot be
// opened or positioned, or a record that cannot be parsed, makes it not live.
bool entry_is_live(uint64_t head_line, uint32_t examine, uint32_t stamp, uint32_t max_time, uint32_t now) {
    if (examine == 0) {
        return true;
    }
    text_file second(vekdns::srv_cache_path, "r");
    if (!second.is_open() || !second.skip(head_line)) {
        return false;
    }
    char piece[line_buffer_size] = {};
    const uint32_t age = now - stamp;
    for (uint32_t i = 0; i < examine; ++i) {
        uint32_t ttl = 0;
        if (!second.next_piece(piece) || DNS_SrvCacheReadTarget(piece, nullptr, &ttl) != DNS_OK) {
            return false;
        }
        const uint32_t limit = ttl == ttl_use_max_time ? max_time : ttl;
        if (age > limit) {
            return false;
        }
    }
    return true;
}

// Reads the `count` records of the entry whose head is at `head_line` into
// the caller's array.
uint32_t DNS_SrvCacheFindRecond(text_file &cache, uint64_t head_line, uint32_t count, DNS_SRV_RR_S *out) {
    if (!cache.rewind() || !cache.skip(head_line)) {
        return DNS_ERR_SEEK_FILE;
    }
    char piece[line_buffer_size] = {};
    for (uint32_t i = 0; i < count; ++i) {
        if (!cache.next_piece(piece)) {
            return DNS_ERR_SEEK_FILE;
        }
        uint32_t ret = DNS_SrvCacheReadTarget(piece, &out[i], nullptr);
        if (ret != DNS_OK) {
            return ret;
        }
    }
    return DNS_OK;
}

} // namespace

uint32_t DNS_SrvCacheGetInfo(text_file &file, uint32_t *pulMaxNum, uint32_t *pulMaxTime,
                             uint32_t *pulRecordNum) {
    char piece[line_buffer_size] = {};
    uint64_t heads = 0;
    while (file.next_piece(piece)) {
        line_words words(piece);
        const char *first = words.next();
        if (first == nullptr) {
            return DNS_ERR_FILE_FORMAT;
        }
        if (is_record_line(first)) {
            continue;
        }
        if (++heads > 2) {
            continue;
        }
        if (!read_parameter(first, words, pulMaxNum, pulMaxTime)) {
            return DNS_ERR_FILE_FORMAT;
        }
    }
    if (!file.ended()) {
        return file.stop_code();
    }
    // A file with fewer than two head lines holds no entry.
    if (pulRecordNum != nullptr) {
        *pulRecordNum = heads > 2 ? static_cast<uint32_t>(std::min<uint64_t>(heads - 2, UINT32_MAX)) : 0;
    }
    return DNS_OK;
}

uint32_t DNS_SrvCacheFormatTarget(const DNS_SRV_RR_S *pstSrvRR, char *pszBuf, uint32_t ulTtl) {
    if (pstSrvRR == nullptr || pszBuf == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    char address[address_text_size] = {};
    const DNS_IPADDR_S &addr = pstSrvRR->stAddr;
    const char *text = addr.ulType == DNS_IP_TYPE_IPV4
                           ? PAL_Inet_Ntop(AF_INET, &addr.unIpAddr.ulIpv4, address, INET_ADDRSTRLEN)
                           : PAL_Inet_Ntop(AF_INET6, addr.unIpAddr.aucIpv6, address, sizeof(address));
    if (text == nullptr) {
        return DNS_ERR_RECORD_INVALID;
    }
    // The caller's target need not be terminated within its 256 bytes.
    const size_t target_len = strnlen(pstSrvRR->szTarget, target_size);
    if (target_len == target_size || target_len + std::strlen(address) + record_overhead > line_buffer_size) {
        return DNS_ERR_RECORD_INVALID;
    }
    (void)memset_s(pszBuf, line_buffer_size, 0, line_buffer_size);
    int len = snprintf_s(pszBuf, line_buffer_size, line_format_limit, "tn: %s %u %u %u %u %s %u \n",
                         pstSrvRR->szTarget, static_cast<unsigned>(pstSrvRR->usPriority),
                         static_cast<unsigned>(pstSrvRR->usWeight), static_cast<unsigned>(pstSrvRR->usPort),
                         addr.ulType, address, ulTtl);
    return len < 0 ? DNS_ERR_RECORD_INVALID : DNS_OK;
}

uint32_t DNS_SrvCacheReadTarget(const char *pszLine, DNS_SRV_RR_S *pstSrvRR, uint32_t *pulTtl) {
    if (pszLine == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    // A line is at most one 127-character piece; anything longer is cut.
    char line[line_buffer_size] = {};
    (void)strncpy_s(line, sizeof(line), pszLine, sizeof(line) - 1);
    line_words words(line);
    const char *fields[8] = {};
    const size_t needed = pulTtl != nullptr ? 8 : 7;
    for (size_t i = 0; i < needed; ++i) {
        fields[i] = words.next();
        if (fields[i] == nullptr) {
            return DNS_ERR_FILE_FORMAT;
        }
    }
    // fields: "tn:" (not compared), target, priority, weight, port, family,
    // address, time to live.
    DNS_SRV_RR_S record;
    std::memset(&record, 0, sizeof(record));
    copy_text(record.szTarget, fields[1]);
    record.usPriority = static_cast<uint16_t>(word_to_u32(fields[2]));
    record.usWeight = static_cast<uint16_t>(word_to_u32(fields[3]));
    record.usPort = static_cast<uint16_t>(word_to_u32(fields[4]));
    record.stAddr.ulType = word_to_u32(fields[5]);
    if (record.stAddr.ulType == DNS_IP_TYPE_IPV4) {
        record.stAddr.unIpAddr.ulIpv4 = PAL_InetAddr(fields[6]);
    } else if (PAL_Inet_Pton(AF_INET6, fields[6], record.stAddr.unIpAddr.aucIpv6) <= 0) {
        return DNS_ERR_TEXT_TO_ADDR;
    }
    if (pulTtl != nullptr) {
        *pulTtl = word_to_u32(fields[7]);
    }
    if (pstSrvRR != nullptr) {
        std::memcpy(pstSrvRR, &record, sizeof(record));
    }
    return DNS_OK;
}

extern "C" {

VEK_DNS_API uint32_t DNS_SetSrvToFileCache(const char *pszName, const DNS_SRV_RR_S *pstSrvRR,
                                           uint32_t ulSrvNum, const uint32_t *pulTtl) {
    if (pszName == nullptr || (ulSrvNum != 0 && (pstSrvRR == nullptr || pulTtl == nullptr))) {
        return DNS_ERR_PARA_INVALID;
    }
    // Every line of the new entry is checked before the file is touched, so
    // a record or head that cannot be stored never leaves half an entry.
    const uint32_t now = PAL_GetSysTimeSec();
    char head[line_buffer_size];
    if (!format_head(head, pszName, now, ulSrvNum)) {
        return DNS_ERR_RECORD_INVALID;
    }
    uint32_t ret = write_entry(nullptr, head, pstSrvRR, ulSrvNum, pulTtl);
    if (ret != DNS_OK) {
        return ret;
    }
    if (PAL_Access(vekdns::srv_cache_path, 0) == -1) {
        return create_service_file(pszName, now, pstSrvRR, ulSrvNum, pulTtl);
    }
    text_file cache(vekdns::srv_cache_path, "r");
    if (!cache.is_open()) {
        return DNS_ERR_OPEN_FILE;
    }
    uint32_t max_number = 0;
    uint32_t max_time = 0;
    uint32_t entries = 0;
    ret = DNS_SrvCacheGetInfo(cache, &max_number, &max_time, &entries);
    if (ret != DNS_OK) {
        return ret;
    }
    if (!cache.rewind()) {
        return DNS_ERR_SEEK_FILE;
    }
    if (entries > max_number) {
        return DNS_ERR_SRV_CACHE_FILE;
    }
    return store_entry(cache, entries == max_number, head, pstSrvRR, ulSrvNum, pulTtl);
}

VEK_DNS_API uint32_t DNS_GetSrvFromFileCache(const char *pszName, DNS_SRV_RR_S *pstSrvRR,
                                             uint32_t *pulSrvNum) {
    DNS_LOG(6, "Entern DNS_GetSrvFromFileCache ");
    if (pstSrvRR == nullptr || pszName == nullptr || pulSrvNum == nullptr) {
        DNS_LOG(3, "DNS_GetSrvFromFileCache param is null");
        return DNS_ERR_PARA_INVALID;
    }
    text_file cache(vekdns::srv_cache_path, "r");
    if (!cache.is_open()) {
        DNS_LOG(3, "DNS_GetSrvFromFileCache open file: %s failed", vekdns::srv_cache_path);
        return DNS_ERR_OPEN_FILE;
    }
    temp_rewrite temp(srv_temp_path);
    if (!temp.open()) {
        DNS_LOG(3, "DNS_GetSrvFromFileCache open file: %s failed", srv_temp_path);
        return DNS_ERR_OPEN_FILE;
    }
    uint32_t max_number = 0;
    uint32_t max_time = 0;
    uint32_t entries = 0;
    uint32_t ret = DNS_SrvCacheGetInfo(cache, &max_number, &max_time, &entries);
    if (ret != DNS_OK) {
        DNS_LOG(3, "DNS_GetSrvFromFileCache DNS_SrvCacheGetInfo lRet: %x", ret);
        return ret;
    }
    if (!cache.rewind()) {
        return DNS_ERR_SEEK_FILE;
    }

    const uint32_t over_limit = entries > max_number ? entries - max_number : 0;
    const uint32_t now = PAL_GetSysTimeSec();
    const uint32_t capacity = *pulSrvNum;
    uint32_t result = DNS_ERR_NOT_FOUND;
    uint64_t found_head = 0; // line of the head of the entry to return
    uint32_t found_count = 0;

    char piece[line_buffer_size] = {};
    uint64_t line_no = 0;
    bool have = cache.next_piece(piece);
    if (have) {
        line_no = 1;
    }
    auto advance = [&] {
        have = cache.next_piece(piece);
        if (have) {
            ++line_no;
        }
    };
    while (have) {
        if (line_no == 3 && over_limit != 0) {
            // The oldest entries over the count limit are not copied.
            for (uint32_t i = 0; i < over_limit && have; ++i) {
                ret = DNS_SrvCacheTravelOneRecord(cache, piece, line_no, have);
                if (ret != DNS_OK) {
                    DNS_LOG(3, "DNS_GetSrvFromFileCache DNS_SrvCacheTravelOneRecord lRet: %x", ret);
                    return ret;
                }
            }
            continue;
        }
        if (line_no > 2) {
            line_words words(piece);
            const char *first = words.next();
            if (first == nullptr) {
                return DNS_ERR_FILE_FORMAT;
            }
            if (!is_record_line(first)) {
                const char *stamp = words.next();
                const char *count = words.next();
                if (stamp == nullptr || count == nullptr) {
                    return DNS_ERR_FILE_FORMAT;
                }
                if (PAL_StrCmp(first, pszName) == 0) {
                    const uint32_t records = word_to_u32(count);
                    const uint32_t examine = std::min(capacity, records);
                    if (!entry_is_live(line_no, examine, word_to_u32(stamp), max_time, now)) {
                        // Dropped: the head and its n record lines are not copied.
                        for (uint32_t i = 0; i < records && have; ++i) {
                            advance();
                        }
                        advance();
                        continue;
                    }
                    result = DNS_OK;
                    found_head = line_no;
                    found_count = examine;
                }
            }
        }
        if (!temp.out.put(piece)) {
            return DNS_ERR_WRITE_FILE;
        }
        advance();
    }
    if (!cache.ended()) {
        return cache.stop_code();
    }
    if (result == DNS_OK) {
        ret = DNS_SrvCacheFindRecond(cache, found_head, found_count, pstSrvRR);
        if (ret != DNS_OK) {
            DNS_LOG(3, "DNS_GetSrvFromFileCache DNS_SrvCacheFindRecond lRet: %x", ret);
            return ret;
        }
        *pulSrvNum = found_count;
    }
    if (uint32_t committed = temp.commit(cache, vekdns::srv_cache_path); committed != DNS_OK) {
        DNS_LOG(3, "DNS_GetSrvFromFileCache DNS_CopyOneFileToAnother failed");
        return committed;
    }
    return result;
}

} // extern "C"
