// Cache parameters: the "maxnumber" and "maxtime" lines at the head of each
// cache file.
#include "config/cache_params.h"

#include "base/text_file.h"

using namespace vekdns::detail;

namespace {

constexpr mode_t created_file_mode = 0640;

// Formats "maxnumber %u\n" or "maxtime %u\n" into `line` and returns it.
const char *parameter_line(char (&line)[line_buffer_size], bool is_number, uint32_t value) {
    (void)format_line(line, is_number ? "maxnumber %u\n" : "maxtime %u\n", value);
    return line;
}

uint32_t create_with_parameters(const char *path, uint32_t number, uint32_t time) {
    return create_file(path, vekdns::resolv_temp_path, created_file_mode, true, [&](text_file &file) {
        char line[line_buffer_size];
        // The second line is not attempted after a failed first one.
        const bool written =
            file.put(parameter_line(line, true, number)) && file.put(parameter_line(line, false, time));
        return written ? DNS_OK : DNS_ERR_WRITE_FILE;
    });
}

// Replaces every piece whose first word is "maxnumber" or "maxtime" and keeps
// every other piece byte for byte; the result is copied over the file.
uint32_t rewrite_parameters(const char *path, uint32_t number, uint32_t time) {
    text_file cache(path, "r");
    if (!cache.is_open()) {
        return open_failed();
    }
    temp_rewrite temp(vekdns::resolv_temp_path, "write temp file failed!\r\n");
    if (!temp.open()) {
        return open_failed();
    }

    char piece[line_buffer_size] = {};
    char formatted[line_buffer_size];
    while (cache.next_piece(piece)) {
        line_words words(piece);
        const char *first = words.next();
        if (first == nullptr) {
            return DNS_ERR_FILE_FORMAT;
        }
        const bool is_number = word_is(first, "maxnumber");
        const char *out = piece;
        if (is_number || word_is(first, "maxtime")) {
            out = parameter_line(formatted, is_number, is_number ? number : time);
        }
        if (!temp.out.put(out)) {
            DNS_LOG(2, "write temp file failed!\r\n");
            return DNS_ERR_WRITE_FILE;
        }
    }
    if (!cache.ended()) {
        return cache.stop_code(); // read stopped early: keep the file as it is
    }
    return temp.commit(cache, path);
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
        return open_failed();
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
        if (!read_parameter(first, words, pulRecordNum, pulTime)) {
            return DNS_ERR_FILE_FORMAT;
        }
        if (word_is(first, "maxtime")) {
            return DNS_OK;
        }
    }
    return DNS_ERR_FILE_FORMAT;
}
