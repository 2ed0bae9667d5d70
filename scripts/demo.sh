#!/usr/bin/env bash
# A guided tour of vekdns against a real DNS server (dnsmasq) that answers
# from a small demo zone. Installs what is missing, builds, then runs every
# step inside a private mount and network namespace with only loopback, a
# private /etc/resolv.conf and fresh tmpfs mounts on /var and /dev/shm, so
# nothing reaches the host's network or files.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
echo "demo: building vekdns (build/default)"
cmake --build --preset default --target vekdns >/dev/null

exec unshare --mount --net --propagation private -- bash -euo pipefail -c '
  ip link set lo up
  mount -t tmpfs demo /var
  mount -t tmpfs demo /dev/shm
  printf "nameserver 127.0.0.1\nsearch demo.test\n" > /var/resolv.conf
  mount --bind /var/resolv.conf /etc/resolv.conf
  dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts --local=/demo.test/ \
    --listen-address=127.0.0.1,::1 --bind-interfaces --port=53 --pid-file= --user=root --local-ttl=300 \
    --host-record=www.demo.test,192.0.2.10,2001:db8::10 \
    --host-record=mail.demo.test,192.0.2.25 \
    --host-record=sip1.demo.test,192.0.2.31 \
    --host-record=sip2.demo.test,192.0.2.32,2001:db8::32 \
    --cname=web.demo.test,www.demo.test \
    --srv-host=_sip._udp.demo.test,sip1.demo.test,5060,10,60 \
    --srv-host=_sip._udp.demo.test,sip2.demo.test,5062,20,40 2>/dev/null &
  dns=$!
  trap "kill $dns 2>/dev/null || true" EXIT
  for _ in $(seq 50); do ss -lun | grep -q "127.0.0.1:53 " && break; sleep 0.1; done

  vekdns() { ./build/default/tools/vekdns "$@"; }
  step() { # prints the command, runs it, shows a non-zero exit code
    printf "\n# %s\n$ %s\n" "$1" "$2"
    local rc=0
    eval "$2" || rc=$?
    [ "$rc" -eq 0 ] || echo "(exit $rc)"
  }
  echo "== vekdns tour: dnsmasq on 127.0.0.1 and ::1 serves demo.test =="
  step "the library behind the tool" "vekdns version"
  step "A and AAAA records, IPv4 first, with their TTL" "vekdns lookup www.demo.test"
  step "one family only" "vekdns lookup -4 mail.demo.test && vekdns lookup -6 www.demo.test"
  step "a CNAME is followed to its target" "vekdns lookup web.demo.test"
  step "a short name takes the search suffix of resolv.conf" "vekdns lookup -4 mail"
  step "a name the server does not know" "vekdns lookup nothere.demo.test"
  step "the second look-up is answered from the memory cache" \
    "vekdns lookup --async -4 www.demo.test www.demo.test"
  step "SRV records in order, each joined with its address" "vekdns srv sip udp demo.test"
  step "masking a call identifier for a log line" "vekdns mask \"sip:alice@192.0.2.10;tag=9\""
  step "JSON for scripts" "vekdns --json lookup -4 www.demo.test"
  step "name servers of /etc/resolv.conf" "vekdns servers"
  step "set them; the library logs the server with its address masked" \
    "vekdns --log-level 5 servers set ::1 2>&1 | grep -i -E \"ip|nameserver\""
  step "now asking dnsmasq over IPv6" "vekdns lookup -4 mail.demo.test"
'
