// What every scenario of resolve_bench shares: the sandbox, the in-process
// responder, the wire helpers of the raw client, the single-lookup calls more
// than one scenario measures, per-call and per-batch timing with medians, the
// table and goal-line printing, and the memory counters (platform blocks and
// allocations, resident set).
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(VEK_BENCH_HAVE_CARES)
#include <ares.h>
#endif

namespace vekbench {

using clk = std::chrono::steady_clock;

// ---- settings -------------------------------------------------------------------------

struct settings {
    unsigned rounds = 10; // every case runs once per round, interleaved
    unsigned cold_per_round = 500;
    unsigned hot_per_round = 10000;
    unsigned async_names = 1000;
    unsigned async_window = 100; // c-ares (and our second async row): most in flight
    unsigned breakdown = 5000;
    unsigned memory_bursts = 10; // back-to-back bursts of the memory check
};

// The responder answers every A question with this address, TTL 300.
constexpr uint8_t answer_ip[4] = {198, 18, 0, 1};
constexpr uint32_t answer_ttl = 300;
constexpr int reply_wait_sec = 2;
constexpr uint16_t srv_port = 5060; // the one SRV record: _sip._udp.<name> -> host.<name>:5060

uint32_t answer_ip_net();

// ---- statistics -----------------------------------------------------------------------

double quantile(std::vector<double> v, double q);
double us_between(clk::time_point a, clk::time_point b);
double safe_ratio(double a, double b);
std::vector<double> time_each(unsigned n, const std::function<void(unsigned)> &f);

// ---- sandbox --------------------------------------------------------------------------

// Enters the test sandbox (private network namespace with only loopback,
// private /etc/resolv.conf, nsswitch.conf and hosts); exits when it cannot.
void isolate();

// ---- wire helpers ------------------------------------------------------------------------

// Encodes an RD query for `name`; 0 when it does not fit.
size_t encode_query(uint8_t *buf, size_t cap, uint16_t id, const char *name, uint16_t qtype);
// The data of the first answer of type `type` in a NOERROR response (with id
// `id`, if not negative); nullptr when there is none.
const uint8_t *first_answer(const uint8_t *msg, size_t len, int id, uint16_t type, uint16_t *rdlen_out);
// True when the answers hold an A record; its address goes to *addr.
bool first_a(const uint8_t *msg, size_t len, int id, uint32_t *addr);
sockaddr_in loopback53();

// ---- the responder ----------------------------------------------------------------------

// One thread, one socket, recvfrom/sendto: a reply costs a parse of the
// question and a copy, nothing else, so the peers' differences show.
class responder {
public:
    responder();
    ~responder();
    responder(const responder &) = delete;
    responder &operator=(const responder &) = delete;

    uint64_t answered() const { return answered_.load(std::memory_order_relaxed); }

private:
    void run();

    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> answered_{0};
    std::thread thread_;
};

// ---- library log ------------------------------------------------------------------------

// Counts the library's log lines and keeps the first few.
void log_sink(const char *line);
void print_log_summary();
unsigned log_lines();

// ---- names --------------------------------------------------------------------------------

extern unsigned g_name_counter;
std::string bench_name(char tag, unsigned i);
// `n` names never asked before, tagged `tag`.
std::vector<std::string> fresh_names(char tag, unsigned n);

// ---- single lookups measured by more than one scenario ---------------------------------------

// Raw UDP: a fresh connected socket per question, select, recv (the floor).
bool raw_resolve(const char *name, uint16_t id, uint16_t qtype = 1);
bool ours_blocking(const char *name);
bool glibc_getaddrinfo(const char *name);

// Peer state shared by the scenarios: glibc's resolver state, c-ares' channel.
extern struct __res_state g_res;
bool peers_init(); // true when c-ares is available
void peers_close();
#if defined(VEK_BENCH_HAVE_CARES)
extern ares_channel g_ares;
// Runs c-ares' event loop until `done` holds (or nothing is pending).
void ares_run(const std::function<bool()> &done);
bool ares_ok(int status, const hostent *host);
bool cares_gethostbyname(const char *name);
#endif

// ---- memory ---------------------------------------------------------------------------------

// Platform allocator: allocations made so far (process-wide, every thread)
// and blocks outstanding now.
uint64_t platform_allocations();
long platform_blocks();
// Outstanding blocks once workers finishing their last request have freed
// theirs (the count holds still for a while).
long settled_platform_blocks();
// Resident set now and its peak, in KiB (from /proc/self/status); the peak
// can be reset (0 when unknown).
long rss_kb();
long peak_rss_kb();
bool reset_peak_rss();

// ---- measured cases ------------------------------------------------------------------------

// A one-at-a-time case: per-call times, failures, questions the server saw,
// platform allocations made during the calls.
struct serial_case {
    serial_case(std::string p, std::string w, std::function<bool(const char *)> r, std::function<void()> b,
                char t)
        : peer(std::move(p)), what(std::move(w)), resolve(std::move(r)), before(std::move(b)), tag(t) {}

    std::string peer;
    std::string what;
    std::function<bool(const char *)> resolve;
    std::function<void()> before; // untimed, before each call
    char tag;
    std::vector<double> us;
    unsigned failed = 0;
    uint64_t questions = 0;
    bool available = true;
    uint64_t allocations = 0; // during the timed calls (kept runs only)

    double median() const { return quantile(us, 0.5); }
    double allocations_per_call() const;
};

void run_serial(serial_case &c, unsigned n, const responder &srv, bool keep);

// A batch case: one sample per run (the whole batch).
struct batch_case {
    batch_case(std::string p, std::string w, std::function<unsigned(const std::vector<std::string> &)> r)
        : peer(std::move(p)), what(std::move(w)), run(std::move(r)) {}

    std::string peer;
    std::string what;
    std::function<unsigned(const std::vector<std::string> &)> run; // returns failures
    std::vector<double> us;
    unsigned failed = 0;
    uint64_t questions = 0;
    unsigned runs = 0;
    uint64_t threads = 0;     // worker threads our library started (ours only)
    uint64_t allocations = 0; // platform allocations (ours only)
    long peak_rss_kb = 0;     // highest resident peak of a run (ours only)
    bool available = true;
    bool goal_row = true; // false: shown for information
    bool ours = false;

    double median_us() const { return quantile(us, 0.5); }
    double per_sec(unsigned names) const;
    double per_request(uint64_t total, unsigned names) const;
};

void run_batch(batch_case &c, const std::vector<std::string> &names, const responder &srv, bool keep);

// Our asynchronous call for every name, at most `window` in flight (0: all
// at once), until every callback is in; returns the failures.
unsigned ours_async(const std::vector<std::string> &names, unsigned window);

// ---- report ------------------------------------------------------------------------------------

std::string ratio_text(double r);
// "goal: <what> <= limit  now ratio  met|NOT met" (n/a when there is no ratio).
void goal_line(const char *what, double ratio, bool at_most, double limit);
// The same for a count per operation, where 0 is a figure and not a gap.
void goal_count(const char *what, double value, double at_most);
void print_serial_table(const std::vector<serial_case *> &rows, const serial_case &ours);
void print_environment(const settings &cfg, bool have_cares);

} // namespace vekbench
