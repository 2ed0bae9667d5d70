// Shared pieces of the vekdns command-line tool: the output context, result
// names and exit codes, and address text helpers. The tool uses the installed
// headers only.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

#include "vek_dns.h"

namespace vekdns::cli {

// Exit codes of every subcommand.
enum exit_code : int { exit_found = 0, exit_not_found = 1, exit_usage = 2, exit_failure = 3 };

// Where a subcommand puts its answer: text lines on stdout, or one JSON
// document that main prints at the end.
struct output {
    bool json = false;
    nlohmann::json doc = nlohmann::json::object();
};

// "DNS_ERR_PARSE_ANSWER" for 0x26040028; "unknown" when the value is not ours.
const char *result_name(uint32_t code);
// True when the code means "the answer is not there" (exit 1) rather than a
// local failure (exit 3).
bool is_miss(uint32_t code);
// Reports a failed call as "<what>: not found: NAME (0xVALUE)" or
// "<what>: failed: ..." on stderr (text) or in `into` (JSON) and returns the
// exit code it maps to.
int report_failure(output &out, nlohmann::json &into, const std::string &what, uint32_t code);

std::string address_text(const DNS_IPADDR_S &addr);
const char *family_name(uint32_t type);
// Parses an IPv4 or IPv6 literal; false when it is neither.
bool parse_address(const std::string &text, DNS_IPADDR_S &addr);
// CLI11 check for an argument that must be an address literal.
extern const CLI::Validator address_literal;

// Subcommand registration: each adds itself to `app` and sets `run` when chosen.
using runner = std::function<int()>;
void add_lookup(CLI::App &app, output &out, runner &run);
void add_srv(CLI::App &app, output &out, runner &run);
void add_servers(CLI::App &app, output &out, runner &run);
void add_cache(CLI::App &app, output &out, runner &run);
void add_filecache(CLI::App &app, output &out, runner &run);

} // namespace vekdns::cli
