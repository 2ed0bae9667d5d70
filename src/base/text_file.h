// Small helpers for the library's text files (resolver file, cache files):
// a stream that closes itself, a crash-safe rewrite through a temporary file,
// the blank-separated words of one line piece, and the steps the files share.
//
// Lines are read in pieces of at most 127 characters (a 128-byte buffer with
// its terminator); a longer line arrives in several pieces and each piece is
// handled as a line of its own. Every buffer here is bounded by that size,
// and one pass over a file reads at most max_read_bytes of it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/types.h>

#include "base/secure.h"
#include "base/sys.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace vekdns::detail {

inline constexpr int line_piece_size = 128;      // handed to PAL_Fgets
inline constexpr size_t line_buffer_size = 128;  // every line buffer
inline constexpr size_t line_format_limit = 127; // most characters formatted into a line
// One pass over a file stops here: an endless file (a device, a runaway
// writer) must not keep a lock holder reading for ever.
inline constexpr uint64_t max_read_bytes = 1u << 20;

// Bytes one piece from fgets took from the stream. A piece that neither ends
// a line nor the file filled the whole buffer; text behind a NUL byte is
// invisible to strlen, so such a piece counts as full.
inline uint64_t piece_bytes(const char *piece, FILE *file) {
    const size_t len = std::strlen(piece);
    const bool short_piece = (len != 0 && piece[len - 1] == '\n') || std::feof(file) != 0;
    return short_piece ? len : static_cast<uint64_t>(line_piece_size - 1);
}

// One open stream; closed with PAL_Fclose on every path.
class text_file {
public:
    text_file() = default;
    text_file(const char *path, const char *mode) : file_(PAL_Fopen(path, mode)) {}
    ~text_file() { close(); }
    text_file(const text_file &) = delete;
    text_file &operator=(const text_file &) = delete;

    bool open(const char *path, const char *mode) {
        adopt(PAL_Fopen(path, mode));
        return file_ != nullptr;
    }
    bool is_open() const { return file_ != nullptr; }
    FILE *get() const { return file_; }
    void adopt(FILE *file) {
        close();
        file_ = file;
        read_ = 0;
        too_long_ = false;
    }
    // PAL_Fclose's result (0 when nothing was open).
    int close() {
        int ret = 0;
        if (file_ != nullptr) {
            ret = PAL_Fclose(file_);
            file_ = nullptr;
        }
        return ret;
    }
    // Next piece into a 128-byte buffer; false at the end, on a read error
    // or once this pass has read more than max_read_bytes.
    bool next_piece(char (&buf)[line_buffer_size]) {
        if (too_long_ || PAL_Fgets(buf, line_piece_size, file_) == nullptr) {
            return false;
        }
        read_ += piece_bytes(buf, file_);
        too_long_ = read_ > max_read_bytes;
        return !too_long_;
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
    bool ended() const { return !too_long_ && std::feof(file_) != 0; }
    // The code for a pass that did not end: 0x2604000C for a file over the
    // bound, 0x2604000E for a read that stopped early.
    uint32_t stop_code() const { return too_long_ ? DNS_ERR_FILE_FORMAT : DNS_ERR_SEEK_FILE; }
    bool rewind() {
        read_ = 0;
        return PAL_Fseek(file_, 0, 0) == 0;
    }
    // PAL_Fputs; false when it reports -1.
    bool put(const char *text) { return PAL_Fputs(text, file_) != -1; }

private:
    FILE *file_ = nullptr;
    uint64_t read_ = 0;
    bool too_long_ = false;
};

// A rewrite through a temporary file of its own: `out` is a fresh file
// named after `temp_base` (".<pid>.<n>" appended), created exclusively,
// never through a link, and removed again on every path out. Temporary files
// of `temp_base` left by processes that no longer exist are removed when a
// new one is made.
//
// commit() makes the target hold either its old or its new content: the
// finished temporary file (flushed and synced, every step checked) takes the
// target's mode and owner and is renamed over it when the target is a plain
// file on the same file system; otherwise (a symlinked or bind-mounted
// target, another file system) the new content is written over the old in
// place, the file cut to its new length after the last write, and synced.
class temp_rewrite {
public:
    // `write_log`: the level-2 text logged when the temporary file cannot be
    // finished (nullptr: no log line).
    explicit temp_rewrite(const char *temp_base, const char *write_log = nullptr)
        : base_(temp_base), write_log_(write_log) {}
    ~temp_rewrite() { discard(); }
    temp_rewrite(const temp_rewrite &) = delete;
    temp_rewrite &operator=(const temp_rewrite &) = delete;

    bool open();
    // Closes `source`, then commits `out` over `target`: 0; 0x2604000B when
    // the temporary file could not be finished (target untouched); 0x2604000D
    // when writing the target failed.
    uint32_t commit(text_file &source, const char *target);
    // Commits `out` as the new file `target` with `mode` (the result of
    // setting the mode is not examined).
    uint32_t commit_new(const char *target, mode_t mode);

    text_file out;

private:
    uint32_t finish(bool &can_rename, const char *target, const mode_t *mode);
    void discard();
    const char *base_;
    const char *write_log_;
    char path_[256] = {};
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

// Creates a file that did not exist, through a temporary file named after
// `temp_base`; `fill` writes it and gives a result code. Nothing is left
// behind on failure; success gives the file `mode`. With `logged`, failures
// are logged.
template <typename Fill>
uint32_t create_file(const char *path, const char *temp_base, mode_t mode, bool logged, Fill fill) {
    temp_rewrite temp(temp_base, logged ? "write cache file failed!\r\n" : nullptr);
    if (!temp.open()) {
        return logged ? open_failed() : DNS_ERR_OPEN_FILE;
    }
    const uint32_t ret = fill(temp.out);
    if (ret != DNS_OK) {
        if (logged) {
            DNS_LOG(2, "write cache file failed!\r\n");
        }
        return ret;
    }
    return temp.commit_new(path, mode);
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
    if (!file.ended()) {
        return file.stop_code();
    }
    return file.rewind() ? DNS_OK : DNS_ERR_SEEK_FILE;
}

} // namespace vekdns::detail
