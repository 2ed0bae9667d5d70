// Small helpers for the library's text files (resolver file, cache files):
// a stream that closes itself, a rewrite through a temporary file, the
// blank-separated words of one line piece, and the steps the files share.
//
// Lines are read in pieces of at most 127 characters (a 128-byte buffer with
// its terminator); a longer line arrives in several pieces and each piece is
// handled as a line of its own. Every buffer here is bounded by that size.
#pragma once

#include <cstdint>
#include <cstdio>
#include <sys/types.h>

#include "base/secure.h"
#include "base/sys.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace vekdns::detail {

inline constexpr int line_piece_size = 128;      // handed to PAL_Fgets
inline constexpr size_t line_buffer_size = 128;  // every line buffer
inline constexpr size_t line_format_limit = 127; // most characters formatted into a line

// One open stream; closed with PAL_Fclose on every path.
class text_file {
public:
    text_file() = default;
    text_file(const char *path, const char *mode) : file_(PAL_Fopen(path, mode)) {}
    ~text_file() { close(); }
    text_file(const text_file &) = delete;
    text_file &operator=(const text_file &) = delete;

    bool open(const char *path, const char *mode) {
        close();
        file_ = PAL_Fopen(path, mode);
        return file_ != nullptr;
    }
    bool is_open() const { return file_ != nullptr; }
    FILE *get() const { return file_; }
    void close() {
        if (file_ != nullptr) {
            (void)PAL_Fclose(file_);
            file_ = nullptr;
        }
    }
    // Next piece into a 128-byte buffer; false at the end or on a read error.
    bool next_piece(char (&buf)[line_buffer_size]) {
        return PAL_Fgets(buf, line_piece_size, file_) != nullptr;
    }
    // Passes over `count` pieces; false when the file ends first.
    bool skip(uint64_t count) {
        char buf[line_buffer_size];
        for (uint64_t i = 0; i < count; ++i) {
            if (!next_piece(buf)) {
                return false;
            }
        }
        return true;
    }
    // After next_piece() returned false: true when the file really ended,
    // false when the read stopped early (a rewrite must then not go on,
    // or it would copy back a cut file).
    bool ended() const { return std::feof(file_) != 0; }
    bool rewind() { return PAL_Fseek(file_, 0, 0) == 0; }
    // PAL_Fputs; false when it reports -1.
    bool put(const char *text) { return PAL_Fputs(text, file_) != -1; }

private:
    FILE *file_ = nullptr;
};

// A rewrite through a temporary file: `out` is the temporary file, removed
// again on every path out once it was created. commit() closes the source
// and `out`, then copies `out` over the target.
class temp_rewrite {
public:
    explicit temp_rewrite(const char *path) : path_(path) {}
    ~temp_rewrite() { discard(); }
    temp_rewrite(const temp_rewrite &) = delete;
    temp_rewrite &operator=(const temp_rewrite &) = delete;

    bool open() {
        created_ = out.open(path_, "w");
        return created_;
    }
    // 0, or 0x2604000D when the copy failed.
    uint32_t commit(text_file &source, const char *target) {
        source.close();
        out.close();
        uint32_t copied = DNS_CopyOneFileToAnother(path_, target);
        discard();
        return copied == DNS_OK ? DNS_OK : DNS_ERR_COPY_FILE;
    }

    text_file out;

private:
    void discard() {
        out.close();
        if (created_) {
            (void)PAL_Remove(path_);
            created_ = false;
        }
    }
    const char *path_;
    bool created_ = false;
};

// strcpy_s whose failure is logged; the caller goes on either way.
template <size_t N> void copy_text(char (&dest)[N], const char *src) {
    errno_t err = strcpy_s(dest, N, src);
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
}

// Clears a 128-byte line buffer and formats at most 127 characters into it;
// a cut line is logged and kept as it is. Returns the length (negative: cut).
template <typename... Args> int format_line(char *line, const char *format, Args... args) {
    (void)memset_s(line, line_buffer_size, 0, line_buffer_size);
    int len = snprintf_s(line, line_buffer_size, line_format_limit, format, args...);
    if (len < 0) {
        DNS_LOG(3, "secure func return fail! lLen = %d", len);
    }
    return len;
}

// The level-2 logs of a file that cannot be opened or written, giving the
// result code.
inline uint32_t open_failed() {
    DNS_LOG(2, "open file failed!\r\n");
    return DNS_ERR_OPEN_FILE;
}
inline uint32_t write_failed() {
    DNS_LOG(2, "write cache file failed!\r\n");
    return DNS_ERR_WRITE_FILE;
}

// Creates a file that did not exist; `fill` writes it and gives a result
// code. A failure removes the file again; success gives it `mode` (the result
// of chmod is not examined). With `logged`, failures are logged.
template <typename Fill> uint32_t create_file(const char *path, mode_t mode, bool logged, Fill fill) {
    text_file file(path, "w");
    if (!file.is_open()) {
        return logged ? open_failed() : DNS_ERR_OPEN_FILE;
    }
    const uint32_t ret = fill(file);
    file.close();
    if (ret != DNS_OK) {
        (void)PAL_Remove(path); // it did not exist before
        if (logged) {
            DNS_LOG(2, "write cache file failed!\r\n");
        }
        return ret;
    }
    (void)vekdns::sys::chmod(path, mode);
    return DNS_OK;
}

// The blank-separated words of a copy of one line piece (strtok_s with the
// blank as the only separator: tabs and the line feed stay inside words).
class line_words {
public:
    explicit line_words(const char *piece) { copy_text(buf_, piece); }
    line_words(const line_words &) = delete;
    line_words &operator=(const line_words &) = delete;

    // The next word, or nullptr when the piece has no more.
    const char *next() {
        char *w = strtok_s(first_ ? buf_ : nullptr, " ", &ctx_);
        first_ = false;
        return w;
    }

private:
    char buf_[line_buffer_size] = {};
    char *ctx_ = nullptr;
    bool first_ = true;
};

// Decimal value of a word as unsigned 32-bit (the conversion stops at the
// first character that is not a digit, the line feed included).
inline uint32_t word_to_u32(const char *word) {
    return static_cast<uint32_t>(PAL_Strtoul(word, nullptr, 10));
}

inline bool word_is(const char *word, const char *text) {
    return word != nullptr && PAL_StrCmp(word, text) == 0;
}

// The value word behind a parameter keyword, stored through `out` where it
// is not null; false when the line has none.
inline bool take_value(line_words &words, uint32_t *out) {
    const char *value = words.next();
    if (value != nullptr && out != nullptr) {
        *out = word_to_u32(value);
    }
    return value != nullptr;
}

// A line whose first word is "maxnumber" or "maxtime" gives its value to
// `number` resp. `time`; false for such a line without its value. Any other
// line is left alone.
inline bool read_parameter(const char *first, line_words &words, uint32_t *number, uint32_t *time) {
    const bool is_number = word_is(first, "maxnumber");
    return (!is_number && !word_is(first, "maxtime")) || take_value(words, is_number ? number : time);
}

// A full cache file gives up its oldest record: the first line, from the
// third on, with the smallest stamp. Every line is a candidate, also one
// stamped in the current second, so the store is kept and the count stays at
// maxnumber. `stamp_of(words, stamp)` gives a line's stamp word (nullptr: the
// line carries none) and false for a line without a stamp it must have.
// `oldest` is 0 when no line has a stamp; the file is left rewound.
template <typename StampOf> uint32_t find_oldest_line(text_file &file, StampOf stamp_of, uint64_t &oldest) {
    char piece[line_buffer_size] = {};
    uint64_t line_no = 0;
    uint64_t smallest = UINT64_MAX;
    oldest = 0;
    while (file.next_piece(piece)) {
        if (++line_no < 3) {
            continue;
        }
        line_words words(piece);
        const char *stamp = nullptr;
        if (!stamp_of(words, stamp)) {
            return DNS_ERR_FILE_FORMAT;
        }
        const uint64_t value = stamp != nullptr ? word_to_u32(stamp) : UINT64_MAX;
        if (value < smallest) {
            smallest = value;
            oldest = line_no;
        }
    }
    return file.ended() && file.rewind() ? DNS_OK : DNS_ERR_SEEK_FILE;
}

} // namespace vekdns::detail
