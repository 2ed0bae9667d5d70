// The crash-safe commit of every rewrite: a temporary file of the rewrite's
// own, finished and checked, then renamed over the target or written over it
// in place.
#include "base/text_file.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace vekdns::detail {
namespace {

std::atomic<unsigned> g_temp_counter{0};

// Removes temporary files "<base>.<pid>.<n>" whose process no longer exists.
void remove_stale_temporaries(const char *base) {
    const char *slash = std::strrchr(base, '/');
    if (slash == nullptr) {
        return;
    }
    const std::string dir(base, static_cast<size_t>(slash - base));
    const std::string prefix = std::string(slash + 1) + ".";
    DIR *d = opendir(dir.empty() ? "/" : dir.c_str());
    if (d == nullptr) {
        return;
    }
    while (const struct dirent *entry = readdir(d)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) {
            continue;
        }
        char *end = nullptr;
        const long pid = std::strtol(entry->d_name + prefix.size(), &end, 10);
        if (pid <= 0 || end == nullptr || *end != '.' || pid == getpid()) {
            continue;
        }
        if (kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH) {
            (void)unlinkat(dirfd(d), entry->d_name, 0);
        }
    }
    (void)closedir(d);
}

// Writes the temporary file over the target in place: no truncation before
// the last write, so a kill leaves the old length; then cut and synced. A
// failed write leaves the start of the new content.
uint32_t write_in_place(const char *from, const char *target) {
    FILE *src = PAL_Fopen(from, "r");
    if (src == nullptr) {
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_COPY_FILE;
    }
    FILE *dst = PAL_Fopen(target, "r+");
    if (dst == nullptr) {
        (void)PAL_Fclose(src);
        DNS_LOG(2, "open file failed!\r\n");
        return DNS_ERR_COPY_FILE;
    }
    char line[line_buffer_size] = {};
    bool ok = true;
    while (ok && PAL_Fgets(line, line_piece_size, src) != nullptr) {
        ok = PAL_Fputs(line, dst) != -1;
    }
    ok = ok && std::feof(src) != 0 && sys::fflush(dst) == 0;
    const off_t length = ok ? ftello(dst) : -1;
    ok = ok && length >= 0 && sys::ftruncate(fileno(dst), length) == 0 && sys::fsync(fileno(dst)) == 0;
    if (!ok) {
        // A write that stopped must not leave the new lines followed by the
        // rest of the old ones (lines neither had): the file is cut after what
        // reached it, the start of the new content.
        (void)sys::fflush(dst);
        const off_t written = lseek(fileno(dst), 0, SEEK_CUR);
        (void)(written >= 0 && sys::ftruncate(fileno(dst), written) == 0);
    }
    (void)PAL_Fclose(src);
    ok = PAL_Fclose(dst) == 0 && ok;
    if (!ok) {
        DNS_LOG(2, "write cache file failed!\r\n");
        return DNS_ERR_COPY_FILE;
    }
    return DNS_OK;
}

} // namespace

bool temp_rewrite::open() {
    discard();
    remove_stale_temporaries(base_);
    // A name taken by an entry someone else made is passed over.
    FILE *file = nullptr;
    for (int attempt = 0; attempt < 8 && file == nullptr; ++attempt) {
        (void)snprintf_s(path_, sizeof(path_), sizeof(path_) - 1, "%s.%ld.%u", base_,
                         static_cast<long>(getpid()), g_temp_counter.fetch_add(1, std::memory_order_relaxed));
        file = sys::create_exclusive(path_);
        if (file == nullptr && errno != EEXIST) {
            return false;
        }
    }
    if (file == nullptr) {
        return false;
    }
    created_ = true;
    out.adopt(file);
    return true;
}

// Flushes, syncs and closes `out`, every step checked. With `mode` the file
// takes it; else, when `target` is a plain file on the same file system, the
// file takes the target's mode and owner and `can_rename` is set.
uint32_t temp_rewrite::finish(bool &can_rename, const char *target, const mode_t *mode) {
    can_rename = false;
    FILE *file = out.get();
    const int fd = fileno(file);
    bool ok = sys::fflush(file) == 0 && sys::fsync(fd) == 0;
    struct stat tst {};
    struct stat st {};
    if (ok && mode != nullptr) {
        (void)sys::fchmod(fd, *mode);
        can_rename = true;
    } else if (ok && lstat(target, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1 &&
               fstat(fd, &tst) == 0 && tst.st_dev == st.st_dev) {
        can_rename = (tst.st_uid == st.st_uid && tst.st_gid == st.st_gid) ||
                     sys::fchown(fd, st.st_uid, st.st_gid) == 0;
        can_rename = can_rename && sys::fchmod(fd, st.st_mode & 07777) == 0;
    }
    ok = out.close() == 0 && ok;
    if (!ok) {
        if (write_log_ != nullptr) {
            DNS_LOG(2, "%s", write_log_);
        }
        return DNS_ERR_WRITE_FILE;
    }
    return DNS_OK;
}

uint32_t temp_rewrite::commit(text_file &source, const char *target) {
    source.close();
    bool can_rename = false;
    uint32_t ret = finish(can_rename, target, nullptr);
    if (ret == DNS_OK && can_rename && sys::rename(path_, target) == 0) {
        created_ = false; // the temporary file is the target now
    } else if (ret == DNS_OK) {
        ret = write_in_place(path_, target); // any rename failure included
    }
    discard();
    return ret;
}

uint32_t temp_rewrite::commit_new(const char *target, mode_t mode) {
    bool can_rename = false;
    uint32_t ret = finish(can_rename, target, &mode);
    if (ret == DNS_OK && sys::rename(path_, target) != 0) {
        ret = DNS_ERR_COPY_FILE;
    } else if (ret == DNS_OK) {
        created_ = false;
    }
    discard();
    return ret;
}

void temp_rewrite::discard() {
    out.close();
    if (created_) {
        (void)PAL_Remove(path_);
        created_ = false;
    }
}

} // namespace vekdns::detail
