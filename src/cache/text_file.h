// Small helpers for the library's text files (resolver file, cache files):
// a stream that closes itself, a temporary file that removes itself, and the
// blank-separated words of one line piece.
//
// Lines are read in pieces of at most 127 characters (a 128-byte buffer with
// its terminator); a longer line arrives in several pieces and each piece is
// handled as a line of its own. Every buffer here is bounded by that size.
#pragma once

#include <cstdint>
#include <cstdio>

#include "base/secure.h"
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

// A temporary file: once created, removed on every path out (also after an
// explicit remove_now(), which makes the destructor a no-op).
class temp_file_remover {
public:
    explicit temp_file_remover(const char *path) : path_(path) {}
    ~temp_file_remover() { remove_now(); }
    temp_file_remover(const temp_file_remover &) = delete;
    temp_file_remover &operator=(const temp_file_remover &) = delete;

    void arm() { armed_ = true; }
    void remove_now() {
        if (armed_) {
            (void)PAL_Remove(path_);
            armed_ = false;
        }
    }

private:
    const char *path_;
    bool armed_ = false;
};

// The blank-separated words of a copy of one line piece (strtok_s with the
// blank as the only separator: tabs and the line feed stay inside words).
class line_words {
public:
    explicit line_words(const char *piece) {
        errno_t err = strcpy_s(buf_, sizeof(buf_), piece);
        if (err != 0) {
            DNS_LOG(3, "secure func return fail! err = %d", err);
        }
    }
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

} // namespace vekdns::detail
