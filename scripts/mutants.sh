#!/usr/bin/env bash
# Plants plausible faults in the library one at a time and reports which ones
# the default tests catch.
#
# usage: scripts/mutants.sh [filter]
#   filter: run only the faults whose name matches this regular expression.
# Environment: MUTANTS_DIR (scratch space, default /tmp/vek_mutants),
#              MUTANTS_TIMEOUT (seconds per test before a hang counts as caught, default 30).
#
# The tree is copied to $MUTANTS_DIR/tree and built once in $MUTANTS_DIR/build
# with the default preset's settings; each fault is an exact text replacement
# (the text must occur exactly once), so a run rebuilds only the touched file.
# A fault is caught when the build's tests fail (a hang counts after the
# time-out). Every test executable enters its own sandbox, as under ctest.
#
# One fault per line: name @@ file @@ exact text @@ replacement
# ("<NL>" stands for a line feed). Add new faults at the end of their group.
set -uo pipefail

faults=$(cat <<'EOF'
base/copy-ignores-write-error @@ src/base/file_copy.cpp @@ if (PAL_Fputs(line, dst) == -1) { @@ if (PAL_Fputs(line, dst) == -2) {
base/sem-not-created @@ src/base/locks.cpp @@ constexpr int sem_create_flag = O_CREAT; @@ constexpr int sem_create_flag = 0;
base/log-level-off-by-one @@ src/base/log.cpp @@ __ATOMIC_RELAXED) < ulLevel @@ __ATOMIC_RELAXED) <= ulLevel
base/log-stdout-format @@ src/base/log.cpp @@ print_to_stdout(buffer, " \r\n"); @@ print_to_stdout(buffer, "\r\n");
base/section-skips-post @@ src/base/sem_guard.h @@ (void)DNS_SemPost(&handle_); @@ /* no post */
base/version-cut-wrong @@ src/base/log.cpp @@ version_text, ulSize - 1); @@ version_text, ulSize);
pal/fail-nth-off-by-one @@ src/os_adapter/test_hooks.cpp @@ call >= first && call <= last @@ call > first && call <= last
pal/named-sem-stale-mapping @@ src/os_adapter/named_sem.cpp @@ m.dev == st.st_dev && m.ino == st.st_ino @@ m.dev == st.st_dev
pal/unlink-without-mark @@ src/os_adapter/named_sem.cpp @@ __atomic_store_n(retire_mark(sem), retired_magic, __ATOMIC_RELEASE); @@ (void)retire_mark(sem);
pal/strdup-no-terminator @@ src/os_adapter/pal.cpp @@ std::memcpy(copy, pszText, len + 1); @@ std::memcpy(copy, pszText, len); copy[len] = 'x';
config/five-search-suffixes @@ src/config/discovery.cpp @@ for (size_t i = 0; i < DNS_MAX_SEARCH_DOMAIN; ++i) {<NL>        char *tok @@ for (size_t i = 0; i + 1 < DNS_MAX_SEARCH_DOMAIN; ++i) {<NL>        char *tok
config/domain-keeps-search @@ src/config/discovery.cpp @@     clear_search(rec);<NL>    errno_t err = strncpy_s(rec->szSearchDomain @@     errno_t err = strncpy_s(rec->szSearchDomain
config/server-keeps-cr @@ src/config/discovery.cpp @@ std::strchr(text, '\r'); @@ std::strchr(text, '\t');
config/delete-first-wrong-index @@ src/config/server_config.cpp @@ second_index = 1; @@ second_index = 2;
config/append-without-line-feed @@ src/config/server_config.cpp @@ "\nnameserver %s\n" @@ "nameserver %s\n"
config/snapshot-ignores-stamps @@ src/config/discovery.cpp @@ a.st_size == b.st_size &&<NL>           same_time(a.st_mtim, b.st_mtim) && same_time(a.st_ctim, b.st_ctim); @@ (a.st_size == b.st_size || true) &&<NL>           (same_time(a.st_mtim, b.st_mtim) || true) && (same_time(a.st_ctim, b.st_ctim) || true);
config/get-cache-one-line @@ src/config/cache_params.cpp @@ examined <= 2; @@ examined < 2;
address/rcode-mask @@ src/base/wire_cursor.h @@ return m[3] & 0x0F; @@ return m[3] & 0x07;
address/rdata-bound-off-by-one @@ src/base/wire_cursor.h @@ bool sub(std::size_t n, std::span<const uint8_t> *out) {<NL>        if (left() < n) { @@ bool sub(std::size_t n, std::span<const uint8_t> *out) {<NL>        if (left() + 1 < n) {
address/ttl-wrong-field @@ src/address/wire.cpp @@ ttls[found] = r.ttl; @@ ttls[found] = r.cls;
address/literal-length-15 @@ src/address/resolver.cpp @@ max_ipv4_literal_len = 16; @@ max_ipv4_literal_len = 15;
address/suffix-length-off-by-one @@ src/address/resolver.cpp @@ name_len + suffix_len + 1 > max_name_len @@ name_len + suffix_len + 1 >= max_name_len
address/suffix-order-reversed @@ src/address/resolver.cpp @@ rec->apszSearchDomain[d - 1]; @@ rec->apszSearchDomain[d == 1 ? 1 : d == 2 ? 0 : d - 1];
address/parse-error-wrong-code @@ src/address/resolver.cpp @@ rd == 1 ? DNS_ERR_PARSE_ANSWER : DNS_OK @@ rd == 1 ? DNS_ERR_NOT_FOUND : DNS_OK
address/no-callback-on-failure @@ src/address/address_calls.cpp @@         report(req, req->ulIpNum != 0 ? DNS_OK : ret, req->astIpAddr, req->ulIpNum);<NL> @@ <NL>
address/callback-under-named-sem @@ src/address/address_calls.cpp @@ section.release();<NL>                (void)pfnCallback(DNS_OK, caller_name, main_list, main_count, pUserData); @@ (void)pfnCallback(DNS_OK, caller_name, main_list, main_count, pUserData);
address/both-ipv6-overwrites-ipv4 @@ src/address/address_calls.cpp @@ addrs + found4, &count6, timeout, ttls + found4); @@ addrs, &count6, timeout, ttls);
cache/memory-expiry-lt @@ src/cache/memory_cache.cpp @@ - item->ulTimeStamp <= age_limit @@ - item->ulTimeStamp < age_limit
cache/memory-one-too-many @@ src/cache/memory_cache.cpp @@ if (head->ulRecords >= head->ulMaxNumber) {<NL>        dnsDelOldestRecord(head);<NL>    }<NL>    return dnsAddIPToCache @@ if (head->ulRecords > head->ulMaxNumber) {<NL>        dnsDelOldestRecord(head);<NL>    }<NL>    return dnsAddIPToCache
cache/memory-get-skips-unlock @@ src/cache/memory_cache.cpp @@ (void)DNS_UnLock(head->pstSem);<NL>    if (found == 0) { @@ if (found == 0) {
cache/index-rehash-splits-wrong @@ src/cache/memory_cache.cpp @@ &tail[(idx->nodes[n].hash & count) != 0 ? 1 : 0]; @@ &tail[(idx->nodes[n].hash & count) != 0 ? 0 : 1];
base/pool-parks-before-queue @@ src/base/worker_pool.cpp @@ bool next_job(parked_worker *self) {<NL>    if (pop_job(self)) { @@ bool next_job(parked_worker *self) {<NL>    if (false && pop_job(self)) {
cache/file-expiry-gt @@ src/cache/address_file_cache.cpp @@ if (age >= limit) { @@ if (age > limit) {
cache/file-ipv6-append-format @@ src/cache/address_file_cache.cpp @@ "%s %s %u %u\n", pszName @@ "%s %s %u %u \n", pszName
cache/file-drops-one-less @@ src/cache/address_file_cache.cpp @@ lines - max_number : 0; @@ lines - max_number - 1 : 0;
cache/srv-expiry-ge @@ src/cache/service_file_cache.cpp @@ if (age > limit) { @@ if (age >= limit) {
cache/srv-record-format @@ src/cache/service_file_cache.cpp @@ "tn: %s %u %u %u %u %s %u \n" @@ "tn: %s %u %u %u %u %s %u\n"
cache/temp-file-left @@ src/base/text_file.cpp @@ (void)PAL_Remove(path_);<NL>        created_ = false; @@ created_ = false;
cache/oldest-is-last @@ src/base/text_file.h @@ if (value < smallest) { @@ if (value <= smallest) {
mask/ipv4-wrong-part @@ src/mask/address_mask.cpp @@ kIpv4Hidden, kIpv4Hidden,<NL>                  acParts[3]) @@ kIpv4Hidden, kIpv4Hidden,<NL>                  acParts[2])
mask/ipv4-length-16 @@ src/mask/address_mask.cpp @@ constexpr size_t kMaxIpv4Len = 15; @@ constexpr size_t kMaxIpv4Len = 16;
mask/url-slash-first @@ src/mask/url_mask.cpp @@ pszSlash != nullptr && pszSlash != apszParts[3] @@ pszSlash != nullptr
mask/callid-no-dot @@ src/mask/url_mask.cpp @@ c == ':' || c == '.'; @@ c == ':';
service/weight-order-flipped @@ src/service/srv_reply.cpp @@ answer->usWeight >= e->usWeight @@ answer->usWeight <= e->usWeight
service/pointer-may-point-forward @@ src/service/srv_reply.cpp @@ if (target >= stretch) { @@ if (target > msg.size()) {
service/ldap-recorded @@ src/service/unreachable_table.cpp @@ PAL_StrStr(pszName, "_ldap") != nullptr @@ PAL_StrStr(pszName, "_ldapx") != nullptr
service/root-alone-accepted @@ src/service/srv_reply.cpp @@ return DNS_ERR_SRV_NOT_OFFERED; @@ (void)0;
service/copy-past-capacity @@ src/service/service_calls.cpp @@ const uint32_t n = size < capacity_ ? size : capacity_; @@ const uint32_t n = size < capacity_ ? size : capacity_ + 1;
EOF
)

filter=${1:-}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=${MUTANTS_DIR:-/tmp/vek_mutants}
per_test=${MUTANTS_TIMEOUT:-30}
tree=$work/tree
build=$work/build
mkdir -p "$tree" "$build"

# Bring the scratch tree in line with the working tree, touching only files
# that differ (so the scratch build stays incremental between runs).
sync_tree() {
    (cd "$root" && git ls-files -co --exclude-standard) | while IFS= read -r f; do
        [[ -f "$root/$f" ]] || continue
        if ! cmp -s "$root/$f" "$tree/$f"; then
            mkdir -p "$(dirname "$tree/$f")"
            cp "$root/$f" "$tree/$f"
        fi
    done
    # Files gone from the working tree go from the copy too.
    (cd "$tree" && find src include tests fuzz tools cmake -type f 2>/dev/null) | while IFS= read -r f; do
        [[ -f "$root/$f" ]] || rm -f "$tree/$f"
    done
}

# Exact replacement of one occurrence; exit 3 when the text is not found exactly once.
apply() {
    python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[1], sys.argv[2].replace("<NL>", "\n"), sys.argv[3].replace("<NL>", "\n")
text = open(path).read()
if text.count(old) != 1:
    sys.exit(3)
open(path, "w").write(text.replace(old, new))
PY
}

build_tree() { cmake --build "$build" -j2 >"$work/build.log" 2>&1; }
run_tests() {
    ctest --test-dir "$build" -j2 --stop-on-failure --timeout "$per_test" >"$work/test.log" 2>&1
}

sync_tree
cmake -S "$tree" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEK_WERROR=ON -DVEK_BUILD_BENCH=OFF -DVEK_TEST_TIMEOUT="$per_test" >"$work/configure.log" 2>&1 ||
    { echo "mutants: configure failed, see $work/configure.log"; exit 2; }
if ! build_tree || ! run_tests; then
    echo "mutants: the unchanged tree does not build or pass, see $work/build.log and $work/test.log"
    exit 2
fi

total=0
caught=0
while IFS= read -r line; do
    [[ -z "$line" ]] && continue
    name=${line%% @@ *}; rest=${line#* @@ }
    file=${rest%% @@ *}; rest=${rest#* @@ }
    old=${rest%% @@ *}; new=${rest#* @@ }
    [[ -n "$filter" && ! "$name" =~ $filter ]] && continue
    cp "$tree/$file" "$work/original"
    if ! apply "$tree/$file" "$old" "$new"; then
        printf '%-36s not applied (text not found exactly once in %s)\n' "$name" "$file"
        continue
    fi
    total=$((total + 1))
    if ! build_tree; then
        verdict="does not build"
        total=$((total - 1))
    elif run_tests; then
        verdict="MISSED"
    else
        caught=$((caught + 1))
        verdict="caught"
        grep -q "Timeout" "$work/test.log" && verdict="caught (time-out)"
        failed=$(grep -m1 -E '\*\*\*Failed|\*\*\*Timeout|\*\*\*Exception|Failed  ' "$work/test.log" |
                 sed -E 's/.*Test +#[0-9]+: ([^ ]+).*/\1/')
        verdict="$verdict by $failed"
    fi
    printf '%-36s %s\n' "$name" "$verdict"
    cp "$work/original" "$tree/$file"
done <<<"$faults"
# Leave the scratch build matching the unchanged tree.
build_tree || true
echo "total: $caught of $total faults caught"
