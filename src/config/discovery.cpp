// Name-server discovery: the servers and search suffixes of /etc/resolv.conf,
// looked at afresh for every query: read, or taken from the snapshot of the
// last read while a stat shows the very same, unchanged file.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/stat.h>

#include "base/memory.h"
#include "base/secure.h"
#include "base/text_file.h"
#include "config/discovery.h"
#include "vek_dns_ops.h"
#include "vek_os_adapter.h"

namespace {

constexpr const char *resolv_conf_path = "/etc/resolv.conf";
constexpr int line_read_size = 128;    // at most 127 characters per read
constexpr size_t line_buffer_size = 256;
constexpr size_t search_text_size = sizeof(DNS_LOCAL_SERVER_S::szSearchDomain);
constexpr size_t server_text_size = 40; // 39 characters and the NUL

// Owns the stream of the resolver file; closes it on every path.
class resolv_file {
public:
    resolv_file() : file_(PAL_Fopen(resolv_conf_path, "r")) {}
    ~resolv_file() {
        if (file_ != nullptr) {
            (void)std::fclose(file_);
        }
    }
    resolv_file(const resolv_file &) = delete;
    resolv_file &operator=(const resolv_file &) = delete;

    bool is_open() const { return file_ != nullptr; }
    FILE *get() const { return file_; }

private:
    FILE *file_;
};

void cut_at_newline(char *text) {
    char *nl = std::strchr(text, '\n');
    if (nl != nullptr) {
        *nl = '\0';
    }
}

void clear_search(DNS_LOCAL_SERVER_S *rec) {
    std::memset(rec->szSearchDomain, 0, sizeof(rec->szSearchDomain));
    for (char *&p : rec->apszSearchDomain) {
        p = nullptr;
    }
}

// "domain <suffix>": one suffix replaces every earlier one. A missing suffix
// (or only the line's end) leaves the earlier ones in place: false then.
bool take_domain_line(DNS_LOCAL_SERVER_S *rec, char **ctx) {
    char *tok = strtok_s(nullptr, " ", ctx);
    if (tok == nullptr || std::strcmp(tok, "\n") == 0) {
        return false;
    }
    clear_search(rec);
    errno_t err = strncpy_s(rec->szSearchDomain, search_text_size, tok, search_text_size - 1);
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
    rec->apszSearchDomain[0] = rec->szSearchDomain;
    cut_at_newline(rec->szSearchDomain);
    return true;
}

// "search <s1> <s2> ...": up to six suffixes replace every earlier one.
void take_search_line(DNS_LOCAL_SERVER_S *rec, char **ctx) {
    clear_search(rec);
    size_t used = 0;
    for (size_t i = 0; i < DNS_MAX_SEARCH_DOMAIN; ++i) {
        char *tok = strtok_s(nullptr, " ", ctx);
        if (tok == nullptr || std::strcmp(tok, "\n") == 0) {
            return;
        }
        // A line piece holds at most 127 characters, so the suffixes always
        // fit; a full buffer would leave nothing to point at.
        if (used >= search_text_size) {
            return;
        }
        char *pos = rec->szSearchDomain + used;
        size_t left = search_text_size - used;
        errno_t err = strncpy_s(pos, left, tok, left - 1);
        if (err != 0) {
            DNS_LOG(3, "secure func return fail! err = %d", err);
        }
        rec->apszSearchDomain[i] = pos;
        cut_at_newline(pos);
        used += std::strlen(pos) + 1;
    }
}

// The first server decides: it must be IPv6, or IPv4 with a set address.
bool first_server_usable(const DNS_LOCAL_SERVER_S *rec) {
    if (rec->ulDnsServers == 0 || rec->pstDnsServer == nullptr) {
        return false;
    }
    const DNS_IPADDR_S &first = rec->pstDnsServer[0];
    return first.ulType == DNS_IP_TYPE_IPV6 ||
           (first.ulType == DNS_IP_TYPE_IPV4 && first.unIpAddr.ulIpv4 != 0);
}

// The outcome of the last successful read, and the identity of the file it
// came from: device, inode, size, and the modification and change times to
// the nanosecond. Any rewrite in place or by rename changes one of them,
// with one exception: a rewrite within the same timestamp tick as the
// previous one, of the same size. So a file changed less than the racy
// window before the stat that preceded its read is never reused ("racily
// clean"): it is read again next time, until it has been still for that
// long. Two seconds: the coarsest stamps in use (FAT) tick every two.
constexpr int64_t default_racy_window_ns = 2'000'000'000;
std::atomic<int64_t> g_racy_window_ns{default_racy_window_ns};

struct resolver_snapshot {
    bool valid = false;
    struct stat id {};
    DNS_LOCAL_SERVER_S rec{}; // rec.pstDnsServer is the snapshot's own (new[])
    bool search_set = false;  // a domain or search line set the suffixes
};

pthread_mutex_t g_snapshot_mutex = PTHREAD_MUTEX_INITIALIZER;
resolver_snapshot g_snapshot; // guarded by g_snapshot_mutex

const int g_snapshot_atfork = pthread_atfork([] { (void)pthread_mutex_lock(&g_snapshot_mutex); },
                                             [] { (void)pthread_mutex_unlock(&g_snapshot_mutex); },
                                             [] { (void)pthread_mutex_unlock(&g_snapshot_mutex); });

bool same_time(const timespec &a, const timespec &b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

bool same_file(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           same_time(a.st_mtim, b.st_mtim) && same_time(a.st_ctim, b.st_ctim);
}

int64_t ns_of(const timespec &t) { return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec; }

// True when the file was changed less than the racy window before `now`
// (or after it: a clock set back).
bool racily_clean(const struct stat &st, const timespec &now) {
    const int64_t last = std::max(ns_of(st.st_mtim), ns_of(st.st_ctim));
    return ns_of(now) - last < g_racy_window_ns.load(std::memory_order_relaxed);
}

void drop_snapshot_locked() {
    delete[] g_snapshot.rec.pstDnsServer;
    g_snapshot = resolver_snapshot{};
}

// A record nothing was read into yet: what the snapshot describes. Reading
// into a record that already holds servers appends to them, so that is
// always a real read.
bool is_fresh(const DNS_LOCAL_SERVER_S *rec) {
    return rec->pstDnsServer == nullptr && rec->ulDnsServers == 0;
}

// Copies the snapshot into `rec` when it describes the file `st` shows.
// Returns false when it does not (or the copy cannot be allocated).
bool take_snapshot(const struct stat &st, DNS_LOCAL_SERVER_S *rec) {
    (void)pthread_mutex_lock(&g_snapshot_mutex);
    bool taken = false;
    if (g_snapshot.valid && same_file(st, g_snapshot.id)) {
        const uint32_t n = g_snapshot.rec.ulDnsServers;
        auto *servers = static_cast<DNS_IPADDR_S *>(VEK_MALLOC(sizeof(DNS_IPADDR_S) * size_t{n}));
        if (servers != nullptr) {
            std::memcpy(servers, g_snapshot.rec.pstDnsServer, sizeof(DNS_IPADDR_S) * size_t{n});
            rec->pstDnsServer = servers;
            rec->ulDnsServers = n;
            if (g_snapshot.search_set) {
                std::memcpy(rec->szSearchDomain, g_snapshot.rec.szSearchDomain, sizeof(rec->szSearchDomain));
                for (size_t i = 0; i < DNS_MAX_SEARCH_DOMAIN; ++i) {
                    const char *p = g_snapshot.rec.apszSearchDomain[i];
                    rec->apszSearchDomain[i] =
                        p == nullptr ? nullptr : rec->szSearchDomain + (p - g_snapshot.rec.szSearchDomain);
                }
            }
            taken = true;
        }
    }
    (void)pthread_mutex_unlock(&g_snapshot_mutex);
    return taken;
}

// Keeps what a read into a fresh record gave, unless the file is racily
// clean. Not from the platform allocator: the snapshot outlives every call.
void keep_snapshot(const struct stat &st, const timespec &now, const DNS_LOCAL_SERVER_S *rec,
                   bool search_set) {
    (void)pthread_mutex_lock(&g_snapshot_mutex);
    drop_snapshot_locked();
    if (!racily_clean(st, now)) {
        auto *servers = new (std::nothrow) DNS_IPADDR_S[rec->ulDnsServers];
        if (servers != nullptr) {
            std::memcpy(servers, rec->pstDnsServer, sizeof(DNS_IPADDR_S) * size_t{rec->ulDnsServers});
            g_snapshot.rec = *rec;
            g_snapshot.rec.pstDnsServer = servers;
            for (size_t i = 0; i < DNS_MAX_SEARCH_DOMAIN; ++i) {
                const char *p = rec->apszSearchDomain[i];
                g_snapshot.rec.apszSearchDomain[i] =
                    p == nullptr ? nullptr : g_snapshot.rec.szSearchDomain + (p - rec->szSearchDomain);
            }
            g_snapshot.id = st;
            g_snapshot.search_set = search_set;
            g_snapshot.valid = true;
        }
    }
    (void)pthread_mutex_unlock(&g_snapshot_mutex);
}

} // namespace

namespace vekdns::detail {

void forget_resolver_snapshot() {
    (void)pthread_mutex_lock(&g_snapshot_mutex);
    drop_snapshot_locked();
    (void)pthread_mutex_unlock(&g_snapshot_mutex);
}

void set_resolver_racy_window(int64_t ns) {
    g_racy_window_ns.store(ns < 0 ? default_racy_window_ns : ns, std::memory_order_relaxed);
    forget_resolver_snapshot();
}

// Appends one server to the record. When the array is full it grows to one
// more entry, or with `doubling` to twice its `capacity` (discovery: one
// allocation and copy per doubling keeps a long file linear).
uint32_t add_local_server(const char *text, DNS_LOCAL_SERVER_S *rec, uint32_t &capacity, bool doubling) {
    if (rec == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    if (text == nullptr) {
        DNS_FreeLocalServer(rec);
        return DNS_ERR_PARA_INVALID;
    }
    const uint32_t count = rec->ulDnsServers;
    if (rec->pstDnsServer == nullptr || count >= capacity) {
        const uint32_t grown_count = doubling ? (count < 4 ? 4 : count * 2) : count + 1;
        const size_t grown_size = static_cast<size_t>(grown_count) * sizeof(DNS_IPADDR_S);
        auto *grown = static_cast<DNS_IPADDR_S *>(VEK_MALLOC(grown_size));
        if (grown == nullptr) {
            DNS_FreeLocalServer(rec);
            return DNS_ERR_NO_MEMORY;
        }
        if (count != 0 && rec->pstDnsServer != nullptr) {
            errno_t err = memcpy_s(grown, grown_size, rec->pstDnsServer, count * sizeof(DNS_IPADDR_S));
            if (err != 0) {
                DNS_LOG(3, "secure func return fail! err = %d", err);
            }
        }
        DNS_FreeLocalServer(rec);
        rec->pstDnsServer = grown;
        capacity = grown_count;
    }
    // The new entry starts as an empty IPv4 record: a text that is not parsed
    // (empty, or neither '.' nor ':') leaves it so, which makes the resolver
    // loop skip it and discovery fail when it is the first entry.
    DNS_IPADDR_S *entry = &rec->pstDnsServer[count];
    std::memset(entry, 0, sizeof(*entry));
    if (text[0] != '\0') {
        uint32_t ret = DNS_GetServerIpAndIpType(text, entry);
        if (ret != DNS_OK) {
            DNS_FreeLocalServer(rec);
            rec->ulDnsServers = 0;
            return ret;
        }
    } else {
        DNS_LOG(2, "%s", "no primary DNS server found!\r\n");
    }
    rec->ulDnsServers = count + 1;
    return DNS_OK;
}

} // namespace vekdns::detail

extern "C" {

VEK_DNS_API uint32_t DNS_GetServerIpAndIpType(const char *pszServer, DNS_IPADDR_S *pstIpAddr) {
    if (pszServer == nullptr || pstIpAddr == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    char text[server_text_size] = {};
    // Longer text is cut to 39 characters before it is converted.
    errno_t err = strncpy_s(text, sizeof(text), pszServer, sizeof(text) - 1);
    if (err != 0) {
        DNS_LOG(3, "secure func return fail! err = %d", err);
    }
    char *end = std::strchr(text, '\r');
    if (end != nullptr) {
        *end = '\0';
    }
    cut_at_newline(text);

    if (std::strchr(text, '.') != nullptr) {
        pstIpAddr->ulType = DNS_IP_TYPE_IPV4;
        pstIpAddr->unIpAddr.ulIpv4 = PAL_InetAddr(text); // 0xFFFFFFFF kept as it comes
    }
    if (std::strchr(text, ':') != nullptr) {
        pstIpAddr->ulType = DNS_IP_TYPE_IPV6;
        if (PAL_Inet_Pton(AF_INET6, text, pstIpAddr->unIpAddr.aucIpv6) <= 0) {
            return DNS_ERR_TEXT_TO_ADDR;
        }
    }
    return DNS_OK;
}

VEK_DNS_API void DNS_FreeLocalServer(DNS_LOCAL_SERVER_S *pstLocalServer) {
    if (pstLocalServer == nullptr || pstLocalServer->pstDnsServer == nullptr) {
        return;
    }
    VEK_FREE(pstLocalServer->pstDnsServer);
    pstLocalServer->pstDnsServer = nullptr;
}

VEK_DNS_API uint32_t dnsAddLocalServer(const char *pszServer, DNS_LOCAL_SERVER_S *pstLocalServer) {
    uint32_t capacity = pstLocalServer != nullptr ? pstLocalServer->ulDnsServers : 0;
    return vekdns::detail::add_local_server(pszServer, pstLocalServer, capacity, false);
}

VEK_DNS_API uint32_t DNS_LocateDnsServer(DNS_LOCAL_SERVER_S *pstLocalServer) {
    if (pstLocalServer == nullptr) {
        return DNS_ERR_PARA_INVALID;
    }
    // The stat comes first: a change after it makes the next stat differ.
    struct stat st {};
    timespec now{};
    const bool fresh = is_fresh(pstLocalServer);
    const bool identified = fresh && stat(resolv_conf_path, &st) == 0 && clock_gettime(CLOCK_REALTIME, &now) == 0;
    if (identified && take_snapshot(st, pstLocalServer)) {
        return DNS_OK;
    }
    bool search_set = false;
    char line[line_buffer_size] = {};
    {
        resolv_file file;
        if (!file.is_open()) {
            DNS_LOG(2, "can not open /etc/resolv.conf!\r\n");
            return DNS_ERR_OPEN_FILE;
        }
        // Each read is a piece of at most 127 characters; a longer line comes
        // in several pieces, and each piece counts as a line of its own. Only
        // the space separates tokens: the line feed stays on the last one.
        // More than max_read_bytes is no resolver file (an endless device).
        uint64_t read = 0;
        uint32_t capacity = 0;
        while (PAL_Fgets(line, line_read_size, file.get()) != nullptr) {
            read += vekdns::detail::piece_bytes(line, file.get());
            if (read > vekdns::detail::max_read_bytes) {
                DNS_FreeLocalServer(pstLocalServer);
                return DNS_ERR_FILE_FORMAT;
            }
            char *ctx = nullptr;
            char *key = strtok_s(line, " ", &ctx);
            if (key == nullptr) {
                DNS_FreeLocalServer(pstLocalServer);
                return DNS_ERR_FILE_FORMAT;
            }
            if (std::strcmp(key, "nameserver") == 0) {
                char *server = strtok_s(nullptr, " ", &ctx);
                if (server == nullptr) {
                    DNS_FreeLocalServer(pstLocalServer);
                    return DNS_ERR_FILE_FORMAT;
                }
                uint32_t ret = vekdns::detail::add_local_server(server, pstLocalServer, capacity, true);
                if (ret != DNS_OK) {
                    return ret; // the array is already released
                }
            } else if (std::strcmp(key, "domain") == 0) {
                search_set = take_domain_line(pstLocalServer, &ctx) || search_set;
            } else if (std::strcmp(key, "search") == 0) {
                take_search_line(pstLocalServer, &ctx);
                search_set = true;
            }
        }
    }
    if (!first_server_usable(pstLocalServer)) {
        DNS_FreeLocalServer(pstLocalServer);
        DNS_LOG(2, "locate dns server failed!\r\n");
        return DNS_ERR_NO_SERVER;
    }
    if (identified) {
        keep_snapshot(st, now, pstLocalServer, search_set);
    }
    return DNS_OK;
}

} // extern "C"
