// Cache parameters: the "maxnumber" and "maxtime" lines at the head of each
// cache file.
#include "config/cache_params.h"

#include "base/secure.h"
#include "base/sys.h"
#include "cache/text_file.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

using vekdns::detail::line_buffer_size;
using vekdns::detail::line_format_limit;
using vekdns::detail::line_words;
using vekdns::detail::temp_file_remover;
using vekdns::detail::text_file;
using vekdns::detail::word_is;
using vekdns::detail::word_to_u32;

namespace {

constexpr mode_t created_file_mode = 0640;

// Formats one parameter line; a cut line is logged and used as it is.
void format_parameter(char (&line)[line_buffer_size], const char *format, uint32_t value) {
    (void)memset_s(line, sizeof(line), 0, sizeof(line));
    int len = snprintf_s(line, sizeof(line), line_format_limit, format, value);
    if (len < 0) {
        DNS_LOG(3, "secure func return fail! lLen = %d", len);
    }
}

uint32_t create_with_parameters(const char *path, uint32_t number, uint32_t time) {
    text_file file(path, "w");
    if (!file.is_open()) {
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    char line[line_buffer_size];
    format_parameter(line, "maxnumber %u\n", number);
    bool written = file.put(line);
    if (written) {
        format_parameter(line, "maxtime %u\n", time);
        written = file.put(line);
    }
    file.close();
    if (!written) {
        // The file did not exist before: do not leave half of it behind.
        (void)PAL_Remove(path);
        DNS_LOG(2, "write cache file failed!\r\n");
        return DNS_ERR_WRITE_FILE;
    }
    (void)vekdns::sys::chmod(path, created_file_mode);
    return DNS_OK;
}

// Replaces every piece whose first word is "maxnumber" or "maxtime" and keeps
// every other piece byte for byte; the result is copied over the file.
uint32_t rewrite_parameters(const char *path, uint32_t number, uint32_t time) {
    text_file cache(path, "r");
    if (!cache.is_open()) {
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    temp_file_remover remover(vekdns::resolv_temp_path);
    text_file temp(vekdns::resolv_temp_path, "w");
    if (!temp.is_open()) {
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    remover.arm();

    char piece[line_buffer_size] = {};
    char formatted[line_buffer_size];
    while (cache.next_piece(piece)) {
        line_words words(piece);
        const char *first = words.next();
        if (first == nullptr) {
            return DNS_ERR_FILE_FORMAT;
        }
        const char *out = piece;
        if (word_is(first, "maxnumber")) {
            format_parameter(formatted, "maxnumber %u\n", number);
            out = formatted;
        } else if (word_is(first, "maxtime")) {
            format_parameter(formatted, "maxtime %u\n", time);
            out = formatted;
        }
        if (!temp.put(out)) {
            DNS_LOG(2, "write temp file failed!\r\n");
            return DNS_ERR_WRITE_FILE;
        }
    }
    if (!cache.ended()) {
        return DNS_ERR_SEEK_FILE; // read stopped early: keep the file as it is
    }
    cache.close();
    temp.close();
    uint32_t copied = DNS_CopyOneFileToAnother(vekdns::resolv_temp_path, path);
    remover.remove_now();
    return copied == DNS_OK ? DNS_OK : DNS_ERR_COPY_FILE;
}

} // namespace

uint32_t DNS_SetCache(uint32_t ulMaxNumber, uint32_t ulMaxTime, const char *pszFile) {
    if (pszFile == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    // 0 stands for the default, never for the value already in the file.
    const uint32_t number = ulMaxNumber == 0 ? vekdns::cache_default_max_number : ulMaxNumber;
    const uint32_t time = ulMaxTime == 0 ? vekdns::cache_default_max_time : ulMaxTime;
    if (PAL_Access(pszFile, 0) == -1) {
        return create_with_parameters(pszFile, number, time);
    }
    return rewrite_parameters(pszFile, number, time);
}

uint32_t DNS_GetCache(uint32_t *pulRecordNum, uint32_t *pulTime) {
    if (pulRecordNum == nullptr && pulTime == nullptr) {
        DNS_LOG(2, "inputting parameter error!\r\n");
        return DNS_ERR_PARA_INVALID;
    }
    if (PAL_Access(vekdns::ipv4_cache_path, 0) == -1) {
        if (pulRecordNum != nullptr) {
            *pulRecordNum = vekdns::cache_default_max_number;
        }
        if (pulTime != nullptr) {
            *pulTime = vekdns::cache_default_max_time;
        }
        return DNS_OK;
    }
    text_file cache(vekdns::ipv4_cache_path, "r");
    if (!cache.is_open()) {
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_OPEN_FILE;
    }
    // Success needs a "maxtime" line among the first two lines; a "maxnumber"
    // line counts only before it (and its value stays stored on failure).
    char piece[line_buffer_size] = {};
    for (int examined = 1; examined <= 2; ++examined) {
        if (!cache.next_piece(piece)) {
            return DNS_ERR_FILE_FORMAT;
        }
        line_words words(piece);
        const char *first = words.next();
        if (first == nullptr) {
            return DNS_ERR_FILE_FORMAT;
        }
        if (word_is(first, "maxnumber")) {
            const char *value = words.next();
            if (value == nullptr) {
                return DNS_ERR_FILE_FORMAT;
            }
            if (pulRecordNum != nullptr) {
                *pulRecordNum = word_to_u32(value);
            }
        } else if (word_is(first, "maxtime")) {
            const char *value = words.next();
            if (value == nullptr) {
                return DNS_ERR_FILE_FORMAT;
            }
            if (pulTime != nullptr) {
                *pulTime = word_to_u32(value);
            }
            return DNS_OK;
        }
    }
    return DNS_ERR_FILE_FORMAT;
}
